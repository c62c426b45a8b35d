// A command's own arguments: options with values, flags and positional words. Each accessor
// consumes what it reads; Finish() refuses anything left over.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumetra::cli {

class Arguments {
  public:
    Arguments(std::string command, std::vector<std::string> args)
        : command_(std::move(command)), args_(std::move(args)) {}

    bool Flag(std::string_view name);
    std::optional<std::string> Value(std::string_view name);
    std::optional<int64_t> Integer(std::string_view name);  // decimal or 0x-hex
    std::optional<double> Number(std::string_view name);
    // Words that are not options, in order; consumes them.
    std::vector<std::string> Positional();

    // False (with the message printed) when a value was malformed or an option is unknown.
    bool Finish();
    bool ok() const { return ok_; }

    // Prints "lumetra-cli COMMAND: text" to standard error and marks the arguments bad.
    void Error(const std::string& text);

  private:
    std::string command_;
    std::vector<std::string> args_;
    bool ok_ = true;
};

std::optional<int64_t> ParseInteger(std::string_view text);

}  // namespace lumetra::cli
