#include "Timeline.h"

#include "Console.h"

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

void Timeline::Add(std::unique_ptr<LogSource> source) {
  auto lane = std::make_unique<Lane>();
  lane->source = std::move(source);
  lane->index = lanes_.size();
  lanes_.push_back(std::move(lane));
}

Civil Timeline::Place(const logrecord::Time& time) const {
  const Civil reference = have_range_ ? last_ : LocalNow();
  return ToCivil(YearEndingBy(time, reference), time);
}

// Parses the records read from a lane's file and counts their years.
void Timeline::Take(Lane& lane, std::vector<std::string>& texts) {
  const logrecord::Form form = lane.source->form();
  for (std::string& text : texts) {
    Record& r = lane.records.emplace_back();
    r.file = lane.index;
    r.form = form;
    r.text = std::move(text);
    r.Parse();
    if (r.fields.has_time) {
      if (lane.any_time && r.fields.time.month < lane.last_month) ++lane.year_step;
      lane.any_time = true;
      lane.last_month = r.fields.time.month;
    }
    r.year_step = lane.year_step;
  }
  texts.clear();
}

// Gives the lane's records from `from` on their times. The first dated
// batch anchors the file's years: its last record ends by `reference`.
void Timeline::Date(Lane& lane, std::size_t from, Civil reference) {
  auto& records = lane.records;
  if (!lane.anchored) {
    for (std::size_t i = records.size(); i-- > from;) {
      if (!records[i].fields.has_time) continue;
      const logrecord::Time& t = records[i].fields.time;
      lane.base_year = (year_ ? year_ : YearEndingBy(t, reference)) - records[i].year_step;
      lane.anchored = true;
      break;
    }
  }
  // Backwards, so that a record without a time takes the next one's.
  bool next = false;
  Civil next_when = 0;
  for (std::size_t i = records.size(); i-- > from;) {
    Record& r = records[i];
    if (r.fields.has_time) {
      r.when = ToCivil(lane.base_year + r.year_step, r.fields.time);
      r.has_time = next = true;
      next_when = r.when;
    } else {
      r.has_time = next;
      r.when = next_when;
    }
  }
  // Those after the last timed record take the one before them.
  for (std::size_t i = from; i < records.size(); ++i) {
    Record& r = records[i];
    if (!r.has_time && lane.have_last) {
      r.has_time = true;
      r.when = lane.last_when;
    }
    if (r.has_time) {
      lane.have_last = true;
      lane.last_when = r.when;
    }
  }
}

void Timeline::Load() {
  std::vector<std::string> texts;
  for (auto& lane : lanes_) {
    while (!lane->done) {
      if (!lane->source->ReadMore(texts)) {
        lane->status = lane->source->Finish(texts);
        lane->done = true;
      }
      Take(*lane, texts);
    }
    Civil reference = 0;
    if (!lane->source->Modified(reference)) reference = LocalNow();
    Date(*lane, 0, reference);
    for (const Record& r : lane->records) {
      if (!r.has_time) continue;
      if (!have_range_ || r.when < first_) first_ = r.when;
      if (!have_range_ || r.when > last_) last_ = r.when;
      have_range_ = true;
    }
  }
}

int Timeline::Merge(RecordSink& sink) {
  for (;;) {
    Lane* next = nullptr;
    for (auto& lane : lanes_) {
      if (lane->records.empty()) continue;
      if (!next || Earlier(lane->records.front(), next->records.front())) next = lane.get();
    }
    if (!next || OutputFailed()) break;
    sink.Write(next->records.front());
    next->records.pop_front();
  }
  sink.Flush();
  int code = kExitOk;
  for (auto& lane : lanes_) code = Worse(code, lane->status);
  return code;
}

int Timeline::Follow(RecordSink& sink) {
  std::vector<std::string> texts;
  for (;;) {
    for (auto& lane : lanes_) {
      lane->source->Poll(texts);
      Take(*lane, texts);
      Date(*lane, 0, LocalNow());
      for (const Record& r : lane->records) sink.Write(r);
      lane->records.clear();
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
