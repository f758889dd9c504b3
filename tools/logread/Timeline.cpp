#include "Timeline.h"

#include "Console.h"

#include <chrono>
#include <cstdio>
#include <limits>
#include <thread>

namespace logread {

namespace {

constexpr std::int64_t kHalfYear = logrecord::kYearMs / 2;

// The year (-1, 0 or 1 from `reference`'s) that brings `key` nearest to it.
int NearestYear(std::int64_t key, std::int64_t reference) {
  int best = 0;
  std::int64_t best_distance = std::numeric_limits<std::int64_t>::max();
  for (int year = -1; year <= 1; ++year) {
    const std::int64_t d = key + year * logrecord::kYearMs - reference;
    const std::int64_t distance = d < 0 ? -d : d;
    if (distance < best_distance) {
      best = year;
      best_distance = distance;
    }
  }
  return best;
}

// Records without any time come first; the rest in time order.
bool Earlier(const Record& a, const Record& b) {
  if (!a.has_time || !b.has_time) return !a.has_time && b.has_time;
  return a.when < b.when;
}

// The year of a point on the timeline; the first record's year is 0.
int YearOf(std::int64_t when) {
  return static_cast<int>((when >= 0 ? when : when - logrecord::kYearMs + 1) / logrecord::kYearMs);
}

}  // namespace

void Timeline::Add(std::unique_ptr<LogSource> source) {
  auto lane = std::make_unique<Lane>();
  lane->source = std::move(source);
  lane->index = lanes_.size();
  lanes_.push_back(std::move(lane));
}

std::int64_t Timeline::Place(const logrecord::Time& time) const {
  const std::int64_t key = time.Key();
  if (!have_reference_) return key;
  const std::int64_t base = static_cast<std::int64_t>(YearOf(reference_)) * logrecord::kYearMs;
  return base + key + NearestYear(key, reference_ - base) * logrecord::kYearMs;
}

std::int64_t Timeline::Unwrap(Lane& lane, std::int64_t key) {
  if (!lane.any_time) {
    lane.any_time = true;
    if (!have_reference_) {
      have_reference_ = true;
      reference_ = key;
      lane.year = 0;
    } else {
      const std::int64_t base = static_cast<std::int64_t>(YearOf(reference_)) * logrecord::kYearMs;
      lane.year = YearOf(reference_) + NearestYear(key, reference_ - base);
    }
  } else if (key < lane.last_key - kHalfYear) {
    ++lane.year;
  } else if (key > lane.last_key + kHalfYear) {
    --lane.year;
  }
  lane.last_key = key;
  lane.last_when = lane.year * logrecord::kYearMs + key;
  return lane.last_when;
}

// Parses the records read from a lane's file and gives them their times.
// Records without a time wait for the next timed record of the file when
// `hold_untimed` is set; otherwise they take the time of the one before.
void Timeline::Take(Lane& lane, std::vector<std::string>& texts, bool hold_untimed) {
  const logrecord::Form form = lane.source->form();
  for (std::string& text : texts) {
    Record& r = lane.records.emplace_back();
    r.file = lane.index;
    r.form = form;
    r.text = std::move(text);
    r.parsed = logrecord::ParseRecord(form, r.text, r.fields);
    if (r.fields.has_time) {
      r.has_time = true;
      r.when = Unwrap(lane, r.fields.time.Key());
      for (std::size_t i = 1; i <= lane.untimed; ++i) {
        Record& waiting = lane.records[lane.records.size() - 1 - i];
        waiting.has_time = true;
        waiting.when = r.when;
      }
      lane.untimed = 0;
    } else {
      ++lane.untimed;
    }
  }
  texts.clear();
  if (!hold_untimed || lane.done) {
    // The end of what there is: the waiting records take the time before them.
    for (std::size_t i = 0; i < lane.untimed; ++i) {
      Record& waiting = lane.records[lane.records.size() - 1 - i];
      waiting.has_time = lane.any_time;
      waiting.when = lane.last_when;
    }
    lane.untimed = 0;
  }
}

// Reads until the lane's first record has its time, or the file is done.
void Timeline::Fill(Lane& lane) {
  std::vector<std::string> texts;
  while (!lane.done && (lane.records.empty() || lane.untimed == lane.records.size())) {
    if (!lane.source->ReadMore(texts)) {
      lane.status = lane.source->Finish(texts);
      lane.done = true;
    }
    Take(lane, texts, true);
  }
}

int Timeline::ReadMerged(RecordSink& sink) {
  // In the order given, so that the first file's first record sets the
  // reference year.
  for (auto& lane : lanes_) Fill(*lane);
  for (;;) {
    Lane* next = nullptr;
    for (auto& lane : lanes_) {
      if (lane->records.empty()) continue;
      if (!next || Earlier(lane->records.front(), next->records.front())) next = lane.get();
    }
    if (!next || OutputFailed()) break;
    sink.Write(next->records.front());
    next->records.pop_front();
    if (next->records.empty() || next->untimed == next->records.size()) Fill(*next);
  }
  int code = kExitOk;
  for (auto& lane : lanes_) {
    if (!lane->done) {
      // The output failed first; settle the file without its records.
      std::vector<std::string> rest;
      lane->status = lane->source->Finish(rest);
    }
    code = Worse(code, lane->status);
  }
  return code;
}

int Timeline::Follow(RecordSink& sink) {
  std::vector<std::string> texts;
  for (;;) {
    for (auto& lane : lanes_) {
      lane->source->Poll(texts);
      Take(*lane, texts, false);
      for (const Record& r : lane->records) sink.Write(r);
      lane->records.clear();
    }
    if (!FlushOutput()) {
      std::fprintf(stderr, "logread: cannot write to standard output\n");
      return kExitIo;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace logread
