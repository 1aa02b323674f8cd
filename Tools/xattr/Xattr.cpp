#include "xattr/Xattr.h"

#include "Support/ErrorText.h"
#include "xattr/ExtendedAttributes.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tools {
namespace {

namespace fs = std::filesystem;

struct Options {
  bool recursive = false;
  bool list = false;
  bool print = false;
  bool write = false;
  bool remove = false;

  [[nodiscard]] std::size_t operandsBeforePaths() const {
    if (write) return 2;
    return print || remove ? 1 : 0;
  }
};

/// Printable text as it stands, other bytes in lines of sixteen.
std::string shown(const std::string& value) {
  const bool isText = std::ranges::none_of(value, [](unsigned char c) { return c < 0x20 && c != '\n' && c != '\t'; });
  if (isText) return value;
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i != 0) text += i % 16 == 0 ? '\n' : ' ';
    text += fmt::format("{:02X}", static_cast<unsigned char>(value[i]));
  }
  return text;
}

/// One run of the tool: what to do with each file, and whether all went well.
class Run {
 public:
  Run(const platform::posix::Sysroot& sysroot, Options options, std::vector<std::string> operands)
      : sysroot_(sysroot), options_(options), operands_(std::move(operands)) {
    const auto paths = operands_.begin() + static_cast<std::ptrdiff_t>(options_.operandsBeforePaths());
    paths_.assign(paths, operands_.end());
  }

  int operator()() {
    for (const std::string& path : paths_) {
      visit(path);
      if (options_.recursive) visitBelow(path);
    }
    return failed_ ? 1 : 0;
  }

 private:
  void visitBelow(const std::string& path) {
    const std::string top = sysroot_.machinePath(path);
    std::error_code error;
    if (!fs::is_directory(top, error)) return;
    constexpr auto options = fs::directory_options::skip_permission_denied;  // visit() has reported it
    for (fs::recursive_directory_iterator entry(top, options, error), end; !error && entry != end;
         entry.increment(error)) {
      visit(path + entry->path().native().substr(top.size()));
    }
    if (error) fail(fmt::format("[Errno {}] {}: '{}'", error.value(), errorText(error.value()), path));
  }

  void visit(const std::string& path) {
    const ExtendedAttributes attributes(sysroot_.machinePath(path));
    int failure = attributes.check();
    if (failure == 0) failure = act(path, attributes);
    if (failure == 0 || (failure == ENODATA && options_.recursive)) return;
    if (failure == ENOENT) {
      fail(fmt::format("No such file: {}", path));
    } else if (failure == ENODATA) {
      fail(fmt::format("{}: No such xattr: {}", path, operands_.front()));
    } else {
      fail(fmt::format("[Errno {}] {}: '{}'", failure, errorText(failure), path));
    }
  }

  int act(const std::string& path, const ExtendedAttributes& attributes) {
    if (options_.remove) return attributes.remove(operands_[0]);
    if (options_.write) return attributes.set(operands_[0], operands_[1]);
    if (options_.print) return print(path, attributes);
    return list(path, attributes);
  }

  int print(const std::string& path, const ExtendedAttributes& attributes) {
    const auto value = attributes.value(operands_[0]);
    if (!value) return value.error();
    fmt::print("{}{}\n", heading(path), shown(*value));
    return 0;
  }

  int list(const std::string& path, const ExtendedAttributes& attributes) {
    const auto names = attributes.names();
    if (!names) return names.error();
    for (const std::string& name : *names) {
      fmt::print("{}{}", heading(path), name);
      if (options_.list) fmt::print(": {}", shown(attributes.value(name).value_or("")));
      fmt::print("\n");
    }
    return 0;
  }

  /// With more than one file each line says whose it is.
  [[nodiscard]] std::string heading(const std::string& path) const {
    return paths_.size() > 1 || options_.recursive ? path + ": " : "";
  }

  void fail(const std::string& message) {
    failed_ = true;
    fmt::print(stderr, "xattr: {}\n", message);
  }

  const platform::posix::Sysroot& sysroot_;
  Options options_;
  std::vector<std::string> operands_;
  std::vector<std::string> paths_;
  bool failed_ = false;
};

/// The flags end at the first word that is none, or at "--": an operand may begin with a hyphen.
std::vector<std::string> takeFlags(std::vector<std::string>& words) {
  const auto end = std::ranges::find_if(
      words, [](const std::string& word) { return word == "--" || word.size() < 2 || word.front() != '-'; });
  std::vector<std::string> flags(words.begin(), end);
  words.erase(words.begin(), end != words.end() && *end == "--" ? end + 1 : end);
  std::ranges::reverse(flags);  // as CLI11 takes a vector
  return flags;
}

}  // namespace

int xattr(const platform::posix::Machine& machine, const std::vector<std::string>& words) {
  Options options;
  CLI::App app(
      "Display and manipulate extended attributes: [-r] [-l] PATH... | -p NAME PATH... | "
      "-w NAME VALUE PATH... | -d NAME PATH...",
      "xattr");
  app.add_flag("-r", options.recursive, "Act on everything below a folder as well");
  auto* operation = app.add_option_group("operation");
  operation->require_option(0, 1);
  operation->add_flag("-l", options.list, "List names and values");
  operation->add_flag("-p", options.print, "Print the value of an attribute");
  operation->add_flag("-w", options.write, "Write an attribute");
  operation->add_flag("-d", options.remove, "Delete an attribute");
  std::vector<std::string> operands = words;
  try {
    app.parse(takeFlags(operands));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  if (operands.size() <= options.operandsBeforePaths()) {
    fmt::print(stderr, "xattr: not enough arguments\n{}", app.help());
    return 1;
  }
  return Run(machine.sysroot, options, std::move(operands))();
}

}  // namespace tools
