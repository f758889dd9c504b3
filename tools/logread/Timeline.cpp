#include "Timeline.h"

#include "Console.h"
#include "YearScan.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace logread {

namespace {

// Records without any time come first; the rest in time order.
bool Earlier(const Record& a, const Record& b) {
  if (!a.has_time || !b.has_time) return !a.has_time && b.has_time;
  return a.when < b.when;
}

// The sensor library's lines that report a failure.
bool SensorFailure(std::string_view message) {
  for (std::string_view start :
       {"Runtime reported exception", "RpcStringBindingCompos err!", "RpcBindingSetAuthInfo:"})
    if (message.substr(0, start.size()) == start) return true;
  return false;
}

}  // namespace

void Record::Parse() {
  parsed = logrecord::ParseRecord(form, text, fields);
  if (parsed && form == logrecord::Form::kSensorLib && fields.has_time &&
      SensorFailure(fields.message))
    fields.level = "ERR";
}

Record& RecordQueue::push_back() {
  if (size_ == slots_.size()) {
    // Full: the queue in order from slot 0, and a new slot at its end.
    std::rotate(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(head_), slots_.end());
    head_ = 0;
    slots_.push_back(std::make_unique<Record>());
  }
  ++size_;
  return (*this)[size_ - 1];
}

void RecordQueue::pop_front() {
  head_ = (head_ + 1) % slots_.size();
  --size_;
}

void Timeline::Add(std::unique_ptr<LogSource> source) {
  auto lane = std::make_unique<Lane>();
  lane->source = std::move(source);
  lane->index = lanes_.size();
  lanes_.push_back(std::move(lane));
}

namespace {

// How much older than its file the newest record may be before its year is
// said to be a guess: a month.
constexpr std::int64_t kGuessGap = 31 * logrecord::kDayMs;

}  // namespace

Civil Timeline::Place(const logrecord::Time& time) const {
  const Civil reference = have_range_ ? last_ : LocalNow();
  return ToCivil(YearEndingBy(time, reference), time);
}

// Parses the records read from a lane's file and counts their years.
void Timeline::Take(Lane& lane, RecordBatch& texts) {
  const logrecord::Form form = lane.source->form();
  for (std::size_t i = 0; i < texts.size(); ++i) {
    Record& r = lane.records.push_back();
    r.file = lane.index;
    r.form = form;
    r.text.assign(texts[i]);
    r.Parse();
    r.has_time = false;
    r.when = 0;
    if (r.fields.has_time) {
      lane.years.Add(r.fields.time);
      lane.newest = r.fields.time;
    }
    r.year_step = lane.years.steps;
  }
  texts.clear();
}

void Timeline::NoteGuess(const Lane& lane, const logrecord::Time& newest_time,
                         Civil modified) const {
  if (!modified) return;
  const Civil newest = ToCivil(YearEndingBy(newest_time, modified), newest_time);
  if (!year_ && modified - newest > kGuessGap)
    Note(lane.source->name(),
         "the newest record, " + IsoTime(newest) + ", is " +
             std::to_string((modified - newest) / logrecord::kDayMs) +
             " days older than the file (" + IsoTime(modified) +
             "): its year is a guess; --year YYYY gives the year of the newest record");
}

void Timeline::Anchor(Lane& lane, const logrecord::Time& newest, int step, Civil reference) {
  lane.base_year = (year_ ? year_ : YearEndingBy(newest, reference)) - step;
  lane.anchored = true;
}

// ToCivil, with the start of the last day asked for kept: records come many
// a day.
Civil Timeline::When(Lane& lane, int year, const logrecord::Time& t) {
  if (year != lane.day_year || t.month != lane.day_month || t.day != lane.day) {
    lane.day_year = year;
    lane.day_month = t.month;
    lane.day = t.day;
    lane.day_start = ToCivil(year, logrecord::Time{t.month, t.day, 0, 0, 0, 0});
  }
  return lane.day_start + ((t.hour * 60LL + t.minute) * 60 + t.second) * 1000 + t.millisecond;
}

void Timeline::Widen(Civil when) {
  if (!have_range_ || when < first_) first_ = when;
  if (!have_range_ || when > last_) last_ = when;
  have_range_ = true;
}

// Settles the times of the records read but not yet dated, up to the last
// one with a time of its own; those after it wait for the next timed record
// unless `final`, then they take the time before them. A lane not yet
// anchored is anchored on its last timed record, which ends by `reference`.
void Timeline::Date(Lane& lane, bool final, Civil reference) {
  auto& records = lane.records;
  std::size_t end = records.size();  // one past the last timed record
  while (end > lane.dated && !records[end - 1].fields.has_time) --end;
  if (!lane.anchored && end > lane.dated)
    Anchor(lane, records[end - 1].fields.time, records[end - 1].year_step, reference);
  // Backwards, so that a record without a time takes the next one's.
  Civil next = 0;
  for (std::size_t i = end; i-- > lane.dated;) {
    Record& r = records[i];
    if (r.fields.has_time) next = When(lane, lane.base_year + r.year_step, r.fields.time);
    r.has_time = true;
    r.when = next;
  }
  if (end > lane.dated) {
    lane.have_last = true;
    lane.last_when = records[end - 1].when;
  }
  if (final) {
    for (std::size_t i = end; i < records.size(); ++i) {
      records[i].has_time = lane.have_last;
      records[i].when = lane.last_when;
    }
    end = records.size();
  }
  lane.dated = end;
}

void Timeline::Load(bool dates) {
  if (!dates) return;
  for (auto& lane : lanes_) {
    const std::unique_ptr<YearScanner> scan = lane->source->ScanYears();
    if (scan) {
      lane->scanned = true;
      if (!scan->count.any) continue;
      Anchor(*lane, scan->last, scan->count.steps, scan->modified ? scan->modified : LocalNow());
      const Civil newest = ToCivil(lane->base_year + scan->count.steps, scan->last);
      Widen(ToCivil(lane->base_year, scan->first));
      Widen(newest);
      // A file changed long after its newest record (copied, touched): its
      // modification time says little of the year, and a year earlier would
      // fit the records as well.
      NoteGuess(*lane, scan->last, scan->modified);
      continue;
    }
    // Standard input: held whole, dated from now.
    RecordBatch texts;
    while (!lane->done) {
      if (!lane->source->ReadMore(texts)) {
        lane->status = lane->source->Finish(texts);
        lane->done = true;
      }
      Take(*lane, texts);
    }
    Date(*lane, true, LocalNow());
    for (std::size_t i = 0; i < lane->records.size(); ++i)
      if (lane->records[i].has_time) Widen(lane->records[i].when);
  }
}

// Reads until the lane has a dated record, or the file is done.
void Timeline::Fill(Lane& lane) {
  while (!lane.done && lane.dated == 0) {
    if (!lane.source->ReadMore(texts_)) {
      lane.status = lane.source->Finish(texts_);
      lane.done = true;
    }
    Take(lane, texts_);
    // A file not read ahead: its records dated from its modification time as
    // far as they are read, and at its end the note on a year that is a guess.
    const Civil reference = lane.source->modified() ? lane.source->modified() : LocalNow();
    Date(lane, lane.done, reference);
    if (lane.done && !lane.scanned && lane.years.any && !lane.source->standard_input())
      NoteGuess(lane, lane.newest, lane.source->modified());
  }
}

int Timeline::Merge(RecordSink& sink) {
  // In the order given, so that records of equal time keep that order.
  for (auto& lane : lanes_) Fill(*lane);
  for (;;) {
    Lane* next = nullptr;
    for (auto& lane : lanes_) {
      if (lane->dated == 0) continue;
      if (!next || Earlier(lane->records.front(), next->records.front())) next = lane.get();
    }
    if (!next || OutputFailed()) break;
    sink.Write(next->records.front());
    next->records.pop_front();
    if (--next->dated == 0) Fill(*next);
  }
  sink.Flush();
  int code = kExitOk;
  for (auto& lane : lanes_) {
    if (!lane->done) {
      // The output failed first; settle the file without its records.
      lane->status = lane->source->Finish(texts_);
    }
    code = Worse(code, lane->status);
  }
  return code;
}

int Timeline::Follow(RecordSink& sink) {
  for (;;) {
    for (auto& lane : lanes_) {
      lane->source->Poll(texts_);
      Take(*lane, texts_);
      Date(*lane, true, LocalNow());
      for (std::size_t i = 0; i < lane->records.size(); ++i) sink.Write(lane->records[i]);
      lane->records.clear();
      lane->dated = 0;
    }
    sink.Flush();
    if (!FlushOutput()) {
      std::fprintf(stderr, "logread: cannot write to standard output\n");
      return kExitIo;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace logread
