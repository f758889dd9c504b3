// The filters of the command line, in front of a writer: a record passes when
// it matches every filter given (and any value of a filter given several).
#pragma once

#include "Matcher.h"
#include "Timeline.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace logread {

struct FilterOptions {
  std::vector<std::string> levels;   // tags as in the records ("ERR"), or "untagged"
  std::string since, until;          // ParseTimeLimit's forms (Clock.h), empty when not given
  std::vector<std::string> threads;  // thread ids, compared as numbers
  std::vector<std::string> sources;  // source names, with or without extension
  std::vector<std::string> grep;     // regular expressions (Matcher.h), any of which is found

  bool any() const;
  bool time() const { return !since.empty() || !until.empty(); }
  // An empty string, or what is wrong with the values.
  std::string Check() const;
};

class RecordFilter : public RecordSink {
 public:
  RecordFilter(const Timeline& timeline, const FilterOptions& options, RecordSink& next);
  // Puts --since and --until on the timeline (after the files are loaded, or
  // before following); an empty string, or why the window is empty.
  std::string Place();
  void Write(const Record& record) override;
  void Flush() override;

  // Whether a record passes the filters other than the time window.
  bool Matches(const Record& record) const;
  // Whether a time lies in the window.
  bool InWindow(Civil when) const { return when >= since_ && when < until_; }
  // The window's ends (the lowest and highest time when not given).
  Civil since() const { return since_; }
  Civil until() const { return until_; }

 private:
  const Timeline& timeline_;
  FilterOptions options_;
  RecordSink& next_;
  std::vector<std::string> levels_;  // upper case
  std::vector<long long> threads_;
  std::unique_ptr<Matcher> grep_;
  Civil since_, until_;
  bool told_ = false;  // the note on an empty window has been given
  long long passed_ = 0;
};

}  // namespace logread
