// The filters of the command line, in front of a writer: a record passes when
// it matches every filter given (and any value of a filter given several).
#pragma once

#include "Timeline.h"

#include <cstdint>
#include <string>
#include <vector>

namespace logread {

struct FilterOptions {
  std::vector<std::string> levels;   // tags as in the records ("ERR"), or "untagged"
  std::string since, until;          // "MM-DD hh:mm[:ss]", empty when not given
  std::vector<std::string> threads;  // thread ids, compared as numbers
  std::vector<std::string> sources;  // source names, with or without extension

  bool any() const;
  // An empty string, or what is wrong with the values.
  std::string Check() const;
};

class RecordFilter : public RecordSink {
 public:
  RecordFilter(const Timeline& timeline, const FilterOptions& options, RecordSink& next);
  void Write(const Record& record) override;

 private:
  bool Passes(const Record& record);

  const Timeline& timeline_;
  FilterOptions options_;
  RecordSink& next_;
  std::vector<long long> threads_;
  bool placed_ = false;  // the time limits are on the timeline
  std::int64_t since_ = 0, until_ = 0;
};

}  // namespace logread
