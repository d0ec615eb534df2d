# Reads libFuzzer's logs, one for each target and named after it, and prints their last figures.

BEGIN {
    row = "%-12s %12s %10s %16s %10s %8s %8s\n"
    printf row, "target", "executions", "a second", "edges", "features", "inputs", "size"
}

FNR == 1 {
    if (NR > 1) print_row()
    target = FILENAME
    sub(/.*\//, "", target)
    executions = speed = edges = total = features = corpus[1] = corpus[2] = "-"
}
/^INFO: Loaded .* inline 8-bit counters/ { total = $5; gsub(/[^0-9]/, "", total) }
/ cov: .* corp: / {
    for (i = 1; i < NF; i++) {
        if ($i == "cov:") edges = $(i + 1)
        if ($i == "ft:") features = $(i + 1)
        if ($i == "corp:") split($(i + 1), corpus, "/")
    }
}
/^stat::number_of_executed_units:/ { executions = $2; all += $2 }
/^stat::average_exec_per_sec:/ { speed = $2 }
END { print_row(); printf "%d executions\n", all }

function print_row() { printf row, target, executions, speed, edges " of " total, features, corpus[1], corpus[2] }
