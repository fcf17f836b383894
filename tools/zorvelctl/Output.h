#pragma once

// What zorvelctl prints: one line per event, either human-readable
// ("instance-found id=101 name=\"Kitchen speaker\"") or one JSON object per
// line ({"event":"instance-found","id":101,"name":"Kitchen speaker"}).
//
// Names arrive from the daemon as raw bytes with no promised encoding, so
// every text field is escaped on the way out:
//  - human: valid UTF-8 is printed as is; control characters and bytes that
//    are not part of valid UTF-8 become \xNN, a double quote \" and a
//    backslash \\.
//  - JSON: valid UTF-8 is copied; control characters use the JSON escapes;
//    a byte that is not part of valid UTF-8 becomes \u00NN (NN = the byte
//    value). Such a name also gets "name_utf8":false so that a reader can
//    tell \u00e9 from an escaped byte 0xE9.

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zorvelctl {

std::string QuoteForTerminal(const std::string& bytes);
std::string QuoteForJson(const std::string& bytes);
bool IsValidUtf8(const std::string& bytes);

// One output line: a type and its fields, in the order they were added.
class Event {
 public:
  explicit Event(std::string type) : type_(std::move(type)) {}

  Event& Int(const std::string& key, std::int64_t value);
  Event& Bool(const std::string& key, bool value);
  // `bytes` is escaped as described above.
  Event& Text(const std::string& key, const std::string& bytes);

  std::string Human() const;
  std::string Json() const;

 private:
  struct Field {
    std::string key;
    std::string human;
    std::string json;
  };
  std::string type_;
  std::vector<Field> fields_;
};

// Writes whole lines to stdout; called from the main-loop thread, the
// library's command threads and the worker, so each line is written under a
// lock and flushed at once.
class Printer {
 public:
  explicit Printer(bool json) : json_(json) {}

  bool json() const { return json_; }
  void Print(const Event& event);
  // The last line of a run. Human output prints `message` alone (to stderr
  // when the run failed); JSON output prints the event with a "message" field.
  void Summary(Event event, bool failed, const std::string& message);

 private:
  void WriteLine(const std::string& line, bool toStderr);

  const bool json_;
  std::mutex mutex_;
};

}  // namespace zorvelctl
