#pragma once

#include <string>

// UTF-8 text with Unicode white space removed from both ends.
class StrippedValue {
public:
    StrippedValue() = default;
    explicit StrippedValue(const std::string& text) : value_(text) {}
    const std::string& str() const { return value_; }
    bool empty() const { return value_.empty(); }

private:
    std::string value_;
};

// Removes Unicode white space from both ends of UTF-8 text.
StrippedValue trim(const std::string& text);
