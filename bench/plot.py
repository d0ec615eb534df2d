#!/usr/bin/env python3
"""bench/plot.py FIGURES DIR: time.svg and memory.svg of what bench/table.py measured, over payload and CRL entries."""
import json
import math
import os
import sys

WIDTH, HEIGHT, LEFT, TOP = 300, 190, 62, 34
SIDES = (("pkgcheck", "#1a6", 0), ("by hand on libcrypto", "#a33", 1))


def log_range(values):
    return math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))


def label(value):
    for unit, name in ((1 << 20, " Mi"), (1 << 10, " Ki")):
        if value >= unit and value % unit == 0:
            return f"{value // unit}{name}"
    return f"{value:,}"


def panel(x, title, points, unit, what):
    """One diagram, both axes logarithmic."""
    keys = sorted(points, key=int)
    values = [point[what][side] for point in points.values() for _, _, side in SIDES]
    low, high = log_range(values)
    first, last = math.log10(int(keys[0])), math.log10(int(keys[-1]))
    across = lambda key: x + (math.log10(int(key)) - first) / (last - first) * WIDTH
    up = lambda value: TOP + HEIGHT - (math.log10(value) - low) / (high - low) * HEIGHT
    lines = [f'<text x="{x}" y="{TOP - 14}" font-weight="bold">{title}</text>']
    for power in range(low, high + 1):
        y = up(10.0**power)
        lines.append(f'<path d="M{x} {y:.1f}h{WIDTH}" stroke="#ddd"/>')
        lines.append(f'<text x="{x - 6}" y="{y + 4:.1f}" text-anchor="end">{10.0**power:g} {unit}</text>')
    for key in keys:
        lines.append(f'<text x="{across(key):.1f}" y="{TOP + HEIGHT + 18}" text-anchor="middle">{label(int(key))}</text>')
    for name, colour, side in SIDES:
        path = " ".join(f"{across(key):.1f},{up(points[key][what][side]):.1f}" for key in keys)
        lines.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        y = TOP + HEIGHT + 40 + 16 * side
        lines.append(f'<path d="M{x} {y - 4}h18" stroke="{colour}" stroke-width="2"/><text x="{x + 24}" y="{y}">{name}</text>')
    return lines


def main():
    with open(sys.argv[1], encoding="ascii") as file:
        figures = json.load(file)
    for name, what, unit in (("time", "ms", "ms"), ("memory", "MiB", "MiB")):
        lines = []
        for place, (title, points) in enumerate(figures.items()):
            lines += panel(LEFT + place * (WIDTH + 2 * LEFT), title, points, unit, what)
        with open(os.path.join(sys.argv[2], f"{name}.svg"), "w", encoding="ascii") as file:
            size = f'width="{2 * WIDTH + 4 * LEFT}" height="{TOP + HEIGHT + 66}"'
            file.write(f'<svg xmlns="http://www.w3.org/2000/svg" {size} font-family="sans-serif" font-size="12">\n')
            file.write('<rect width="100%" height="100%" fill="white"/>\n' + "\n".join(lines) + "\n</svg>\n")


main()
