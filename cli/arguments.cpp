#include "cli/arguments.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace lumetra::cli {

std::optional<int64_t> ParseInteger(std::string_view text) {
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    int64_t v = 0;
    auto [p, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
    if (text.empty() || ec != std::errc() || p != text.data() + text.size()) {
        return std::nullopt;
    }
    return negative ? -v : v;
}

void Arguments::Error(const std::string& text) {
    std::fprintf(stderr, "lumetra-cli %s: %s\n", command_.c_str(), text.c_str());
    ok_ = false;
}

bool Arguments::Flag(std::string_view name) {
    for (auto it = args_.begin(); it != args_.end(); ++it) {
        if (*it == name) {
            args_.erase(it);
            return true;
        }
    }
    return false;
}

std::optional<std::string> Arguments::Value(std::string_view name) {
    for (auto it = args_.begin(); it != args_.end(); ++it) {
        if (*it == name) {
            if (it + 1 == args_.end()) {
                Error(std::string(name) + " needs a value");
                args_.erase(it);
                return std::nullopt;
            }
            std::string v = *(it + 1);
            args_.erase(it, it + 2);
            return v;
        }
    }
    return std::nullopt;
}

std::optional<int64_t> Arguments::Integer(std::string_view name) {
    auto text = Value(name);
    if (!text) {
        return std::nullopt;
    }
    auto v = ParseInteger(*text);
    if (!v) {
        Error(std::string(name) + " needs a whole number, not '" + *text + "'");
    }
    return v;
}

std::optional<double> Arguments::Number(std::string_view name) {
    auto text = Value(name);
    if (!text) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double v = std::strtod(text->c_str(), &end);
    if (text->empty() || *end != '\0') {
        Error(std::string(name) + " needs a number, not '" + *text + "'");
        return std::nullopt;
    }
    return v;
}

std::vector<std::string> Arguments::Positional() {
    std::vector<std::string> out;
    for (auto it = args_.begin(); it != args_.end();) {
        if (it->size() > 2 && it->compare(0, 2, "--") == 0) {
            ++it;
        } else {
            out.push_back(*it);
            it = args_.erase(it);
        }
    }
    return out;
}

bool Arguments::Finish() {
    for (const std::string& a : args_) {
        Error("unknown argument " + a);
    }
    args_.clear();
    return ok_;
}

}  // namespace lumetra::cli
