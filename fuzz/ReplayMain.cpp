// Runs a fuzz target without libFuzzer, so that every test run (and the sanitizer build) exercises
// it: over each seed file given (files, or directories of them), the empty input, then
// deterministic mutations of the seeds. A crash or a violated property aborts the run.
//
//   parlavox-fuzz-replay-NAME [--mutations=N] [--seed=S] PATH...

#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size);

namespace {

using namespace std::string_view_literals;
using Input = std::vector<std::uint8_t>;

constexpr std::size_t kMaxInputSize = 4096;

// What the parsers under test give meaning to: OSC layout, JSON syntax and keys, and bytes that
// begin, continue or break UTF-8.
// clang-format off
constexpr std::array kTokens = {
    "\0"sv, "\0\0\0\0"sv, ",s"sv, ",si"sv, "/parlavox/say/"sv, "#bundle"sv, "/"sv, ","sv, "s"sv, "i"sv,
    "#"sv, "null"sv, "true"sv, "1e999"sv, "\"t\""sv, "\"name\""sv, "\"role\""sv, "\"oscPort\""sv,
    "\""sv, "\\"sv, "\\u0000"sv, "\\ud800"sv, "{"sv, "}"sv, "["sv, "]"sv, ":"sv, "[]"sv, "{}"sv,
    "\x01"sv, "\x7F"sv, "\x80"sv, "\xBF"sv, "\xC0"sv, "\xC2"sv, "\xE0"sv, "\xED"sv, "\xF0"sv,
    "\xF4"sv, "\xFF"sv, "\xF0\x9F\x8E\xAD"sv};
// clang-format on

// mt19937_64's output is fixed by the standard: a run, and a failing mutation, replay the same on
// every machine.
std::mt19937_64 gRandom;
std::size_t below(std::size_t bound) {
  return static_cast<std::size_t>(gRandom() % bound);
}

// One edit: flip a bit, insert or overwrite with a token, erase a run, copy a run elsewhere, or
// keep a head and append any seed's tail.
void mutate(Input& input, const std::vector<Input>& seeds) {
  const auto at = [&input](std::size_t extra) {
    return input.begin() + static_cast<std::ptrdiff_t>(below(input.size() + extra));
  };
  // 1 to `longest` bytes from a random place, cut short by the end.
  const auto run = [&](std::size_t longest) {
    const auto first = at(1);
    const auto length = static_cast<std::ptrdiff_t>(1 + below(longest));
    return std::pair(first, first + std::min(length, input.end() - first));
  };
  const std::string_view token = kTokens[below(kTokens.size())];
  switch (below(6)) {
    case 0:
      if (!input.empty()) {
        *at(0) ^= static_cast<std::uint8_t>(1U << below(8));
      }
      break;
    case 1:
      input.insert(at(1), token.begin(), token.end());
      break;
    case 2: {
      const auto first = at(1);
      const auto kept = std::min(std::ssize(token), input.end() - first);
      input.insert(std::copy_n(token.begin(), kept, first), token.begin() + kept, token.end());
      break;
    }
    case 3: {
      const auto [first, last] = run(8);
      input.erase(first, last);
      break;
    }
    case 4: {
      const auto [first, last] = run(16);
      const Input copy(first, last);
      input.insert(at(1), copy.begin(), copy.end());
      break;
    }
    default: {
      const Input& other = seeds[below(seeds.size())];
      input.erase(at(1), input.end());
      input.insert(input.end(),
                   other.begin() + static_cast<std::ptrdiff_t>(below(other.size() + 1)),
                   other.end());
    }
  }
  input.resize(std::min(input.size(), kMaxInputSize));
}

const Input* gCurrent = nullptr;  // the input being run, for showInput()

void writeToStderr(const void* data, std::size_t size) {
  const ssize_t written = write(STDERR_FILENO, data, size);
  static_cast<void>(written);  // nothing to be done about it while dying
}

// On abort (a violated property, or a sanitizer report with abort_on_error) or a crash: the input
// in hex, for `xxd -r -p`. Only write(2), which is safe in a signal handler.
extern "C" void showInput(int signal) {
  if (gCurrent != nullptr) {
    writeToStderr("input being run, in hex:\n", 25);
    for (const std::uint8_t byte : *gCurrent) {
      const std::array<char, 2> pair = {"0123456789abcdef"[byte >> 4],
                                        "0123456789abcdef"[byte & 15]};
      writeToStderr(pair.data(), 2);
    }
    writeToStderr("\n", 1);
  }
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void run(const Input& input) {
  gCurrent = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
  gCurrent = nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long mutations = 3000;
  std::uint64_t seed = 0x5EED;
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.starts_with("--mutations=")) {
      mutations = std::strtoul(argv[i] + 12, nullptr, 10);
    } else if (arg.starts_with("--seed=")) {
      seed = std::strtoull(argv[i] + 7, nullptr, 0);
    } else if (std::filesystem::is_directory(arg)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg)) {
        files.push_back(entry.path());
      }
    } else {
      files.emplace_back(arg);
    }
  }
  std::sort(files.begin(), files.end());  // directory order differs between machines
  std::signal(SIGABRT, showInput);
  std::signal(SIGSEGV, showInput);

  std::vector<Input> seeds;
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 2;
    }
    seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    run(seeds.back());
  }
  if (seeds.empty()) {
    std::fputs("no seed files: give seed files or directories\n", stderr);
    return 2;
  }
  run({});
  gRandom.seed(seed);
  for (unsigned long i = 0; i < mutations; ++i) {
    Input input = seeds[below(seeds.size())];
    for (std::size_t edits = 1 + below(4); edits > 0; --edits) {
      mutate(input, seeds);
    }
    run(input);
  }
  std::printf("%zu seeds and %lu mutations replayed (seed %#llx)\n", seeds.size(), mutations,
              static_cast<unsigned long long>(seed));
  return 0;
}
