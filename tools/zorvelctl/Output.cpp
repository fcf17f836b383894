#include "Output.h"

#include <cstdio>

#include <glib.h>

namespace zorvelctl {
namespace {

// Length of the valid UTF-8 sequence that starts at bytes[i], or 0 when the
// byte there does not start one (g_utf8_validate rejects overlong forms,
// surrogates and code points past U+10FFFF).
std::size_t Utf8SequenceAt(const std::string& bytes, std::size_t i) {
  const unsigned char lead = static_cast<unsigned char>(bytes[i]);
  std::size_t length = 0;
  if (lead < 0x80) {
    return 1;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4;
  }
  if (length == 0 || i + length > bytes.size()) return 0;
  return g_utf8_validate(bytes.data() + i, static_cast<gssize>(length), nullptr) ? length : 0;
}

std::string Hex(const char* format, unsigned char byte) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, format, byte);
  return buffer;
}

}  // namespace

bool IsValidUtf8(const std::string& bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    const std::size_t length = Utf8SequenceAt(bytes, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string QuoteForTerminal(const std::string& bytes) {
  std::string out = "\"";
  for (std::size_t i = 0; i < bytes.size();) {
    const unsigned char byte = static_cast<unsigned char>(bytes[i]);
    const std::size_t length = Utf8SequenceAt(bytes, i);
    if (length == 0 || byte < 0x20 || byte == 0x7F) {
      out += Hex("\\x%02x", byte);
      ++i;
      continue;
    }
    if (byte == '"' || byte == '\\') out += '\\';
    out.append(bytes, i, length);
    i += length;
  }
  return out + "\"";
}

std::string QuoteForJson(const std::string& bytes) {
  std::string out = "\"";
  for (std::size_t i = 0; i < bytes.size();) {
    const unsigned char byte = static_cast<unsigned char>(bytes[i]);
    const std::size_t length = Utf8SequenceAt(bytes, i);
    if (length == 0) {
      out += Hex("\\u%04x", byte);  // not UTF-8: the byte value as a code point
      ++i;
      continue;
    }
    switch (byte) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte < 0x20) {
          out += Hex("\\u%04x", byte);
        } else {
          out.append(bytes, i, length);
        }
    }
    i += length;
  }
  return out + "\"";
}

Event& Event::Int(const std::string& key, std::int64_t value) {
  const std::string text = std::to_string(value);
  fields_.push_back({key, text, text});
  return *this;
}

Event& Event::Bool(const std::string& key, bool value) {
  const std::string text = value ? "true" : "false";
  fields_.push_back({key, text, text});
  return *this;
}

Event& Event::Text(const std::string& key, const std::string& bytes) {
  fields_.push_back({key, QuoteForTerminal(bytes), QuoteForJson(bytes)});
  if (!IsValidUtf8(bytes)) fields_.push_back({key + "_utf8", "", "false"});
  return *this;
}

std::string Event::Human() const {
  std::string line = type_;
  for (const Field& field : fields_) {
    if (field.human.empty()) continue;  // JSON-only companions
    line += " " + field.key + "=" + field.human;
  }
  return line;
}

std::string Event::Json() const {
  std::string line = "{\"event\":" + QuoteForJson(type_);
  for (const Field& field : fields_) line += "," + QuoteForJson(field.key) + ":" + field.json;
  return line + "}";
}

void Printer::Print(const Event& event) { WriteLine(json_ ? event.Json() : event.Human(), false); }

void Printer::Summary(Event event, bool failed, const std::string& message) {
  if (json_) {
    WriteLine(event.Text("message", message).Json(), false);
  } else if (!message.empty()) {
    WriteLine(failed ? "zorvelctl: " + message : message, failed);
  }
}

void Printer::WriteLine(const std::string& line, bool toStderr) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::FILE* stream = toStderr ? stderr : stdout;
  std::fputs(line.c_str(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
}

}  // namespace zorvelctl
