// A shipped channel with a cache in a folder, whose queue thread admits messages as its tasks do.
#ifndef QUENOR_BENCHMARKS_ADMISSION_CHANNEL_H_
#define QUENOR_BENCHMARKS_ADMISSION_CHANNEL_H_

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "benchmarks/admission/contents.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"

namespace quenor::bench {

class AdmittingChannel {
 public:
  // Nothing is ever sent: the next send is an hour away.
  explicit AdmittingChannel(const std::string& name);
  ~AdmittingChannel();

  // Each of these runs on the channel's queue thread, and the caller waits.
  // Makes `count` messages of `size` pending, in place of those that are, and saves them.
  void Fill(size_t count, size_t size);
  // Mean nanoseconds of: the oldest pending message goes, a new one is admitted and the save made.
  // Before each admission `pending` messages are there.
  double SteadyNs(size_t pending, size_t size, double least_ns);
  // Nanoseconds of each of `count` admissions in a row. Before each the oldest go until at most
  // `most` are pending.
  std::vector<double> EachNs(size_t count, size_t most, size_t size);

 private:
  void OnQueue(const std::function<void()>& act);

  std::shared_ptr<ReliableReportChannelHttps> channel_;
  std::mt19937_64 random_{7};
};

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_ADMISSION_CHANNEL_H_
