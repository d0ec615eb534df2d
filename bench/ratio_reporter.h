// One table at the end instead of the console's: the medians of the library and of libcrypto side by side with their
// ratio, of times and of the counters. --benchmark_out keeps the single runs.
#ifndef PNVBENCH_RATIO_REPORTER_H
#define PNVBENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace pnvbench {

// How the name of a benchmark ends; what stands before is the measurement.
constexpr char libraryEnding[] = "/cmsverify";
constexpr char yardstickEnding[] = "/libcrypto";

class RatioReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    struct Row {
        std::int64_t order;
        std::string figure;
        double library = 0;
        double yardstick = 0;
    };

    void Note(const Run& run);
    Row& RowOf(const std::string& figure, std::int64_t order);

    std::vector<Row> rows_;
};

} // namespace pnvbench

#endif
