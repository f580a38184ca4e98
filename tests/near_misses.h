// Texts that a faulty lookup could confuse with another text.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace test {

/// A text of this length, in which no two neighbours are the same.
inline std::string text_of_length(size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    return text;
}

/// Every text that differs from this one in one byte, and those that are one byte shorter and longer.
inline std::vector<std::string> near_misses(const std::string& text) {
    std::vector<std::string> misses{text + 'x'};
    for (size_t i = 0; i < text.size(); ++i) {
        misses.push_back(text);
        misses.back()[i] ^= 1;
    }
    if (!text.empty()) misses.push_back(text.substr(0, text.size() - 1));
    return misses;
}

/// A text in memory that ends with its NUL, so that the address sanitizer notices a read beyond it.
class ExactText {
  public:
    explicit ExactText(const std::string& text) : memory_(new char[text.size() + 1]) {
        std::copy_n(text.c_str(), text.size() + 1, memory_.get());
    }
    const char* get() const { return memory_.get(); }

  private:
    std::unique_ptr<char[]> memory_;
};

}  // namespace test
