#include "ratio_reporter.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace pnvbench {

namespace {

using Run = benchmark::BenchmarkReporter::Run;

// One repetition alone has no aggregates.
bool IsMedian(const Run& run)
{
    return run.run_type == Run::RT_Aggregate ? run.aggregate_name == "median" : run.repetitions <= 1;
}

bool EndsWith(const std::string& name, const std::string& ending)
{
    return name.size() >= ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

} // namespace

bool RatioReporter::ReportContext(const Context& context)
{
    PrintBasicContext(&std::cerr, context);
    return true;
}

void RatioReporter::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        if (IsMedian(run) && !run.error_occurred) Note(run);
    }
}

void RatioReporter::Note(const Run& run)
{
    const std::string& name = run.run_name.function_name;
    const bool isLibrary = EndsWith(name, libraryEnding);
    const std::string measurement = name.substr(0, name.rfind('/'));
    const auto note = [&](const std::string& figure, double value) {
        Row& row = RowOf(measurement + ", " + figure, run.family_index);
        (isLibrary ? row.library : row.yardstick) = value;
    };
    note(benchmark::GetTimeUnitString(run.time_unit), run.GetAdjustedRealTime());
    for (const auto& [counter, value] : run.counters) note(counter, value.value);
}

RatioReporter::Row& RatioReporter::RowOf(const std::string& figure, std::int64_t order)
{
    const auto known = std::find_if(rows_.begin(), rows_.end(), [&](const Row& row) { return row.figure == figure; });
    if (known != rows_.end()) return *known;
    rows_.push_back({order, figure});
    return rows_.back();
}

void RatioReporter::Finalize()
{
    // Runs of different benchmarks are interleaved.
    std::stable_sort(rows_.begin(), rows_.end(), [](const Row& a, const Row& b) { return a.order < b.order; });
    std::printf("%-44s %12s %12s %8s\n", "median", libraryEnding + 1, yardstickEnding + 1, "ratio");
    for (const Row& row : rows_) {
        std::printf("%-44s %12.2f %12.2f %8.3f\n", row.figure.c_str(), row.library, row.yardstick,
                    row.library / row.yardstick);
    }
}

} // namespace pnvbench
