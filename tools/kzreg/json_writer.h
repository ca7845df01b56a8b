#pragma once

// Writes JSON (RFC 8259) to standard output, indented.

#include <string>
#include <vector>

namespace kzreg {

/// Writes as it is told; that the calls make a whole is the caller's business.
class JsonWriter {
  public:
    void beginObject() { begin('{'); }
    void endObject() { end('}'); }
    void beginArray() { begin('['); }
    void endArray() { end(']'); }
    /// The name of what comes next, in an object.
    void name(const std::string& text);
    /// A text. Bytes that are no UTF-8 stand for the characters of those numbers, as in ISO 8859-1.
    void text(const std::string& text);
    void number(unsigned long long number);
    void null();

  private:
    void begin(char bracket);
    void end(char bracket);
    void startItem();
    void newLine();

    std::vector<int> items_;  // so far, of each object and array that is open
    bool named_ = false;
};

}  // namespace kzreg
