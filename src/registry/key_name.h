#pragma once

#include <strings.h>

#include <algorithm>
#include <string_view>

/// A name as the registry's maps order it: byte by byte, letter case ignored. Refers to the text, which must
/// stay where it is.
class CKZStringPc {
  public:
    CKZStringPc(std::string_view text) : text_(text) {}

    std::string_view text() const { return text_; }

    friend bool operator<(CKZStringPc left, CKZStringPc right) {
        const size_t common = std::min(left.text_.size(), right.text_.size());
        const int order = strncasecmp(left.text_.data(), right.text_.data(), common);
        return order != 0 ? order < 0 : left.text_.size() < right.text_.size();
    }

  private:
    std::string_view text_;
};
