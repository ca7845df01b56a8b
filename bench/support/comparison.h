#pragma once

// Collects the runs of all operations and their floors, and prints them as one table.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace traiklofox::bench {

class ComparisonReporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

    bool hasFailed() const { return failed_; }

  private:
    struct Row {
        std::string name;  // with the arguments and the number of threads
        std::string operation;
        std::vector<double> nanoseconds;
        std::vector<double> floorNanoseconds;
    };
    Row& rowOf(const std::string& name, const std::string& operation);

    std::vector<Row> rows_;
    bool failed_ = false;
};

}  // namespace traiklofox::bench
