// Runs a fuzz target without libFuzzer: over every seed file given (files or directories), then
// over deterministic pseudo-random mutations of them, so that ordinary test runs (and sanitizer
// builds) exercise the targets. A crash or a violated property aborts the run.
//
//   parlavox-fuzz-replay-NAME [--mutations=N] [--seed=S] PATH...

#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

// The name and signature are libFuzzer's.
extern "C" int LLVMFuzzerTestOneInput(  // NOLINT(readability-identifier-naming)
    const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;

constexpr std::size_t kMaxInputSize = 4096;

// splitmix64: small, fast and the same on every machine, so a failing mutation can be replayed.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // Uniform enough in [0, bound) for bound > 0.
  std::size_t below(std::size_t bound) { return static_cast<std::size_t>(next() % bound); }

 private:
  std::uint64_t state_;
};

// Bytes and tokens that the parsers under test give meaning to.
constexpr std::array<std::uint8_t, 24> kInterestingBytes = {
    0x00, 0x01, 0x7F, 0x80, 0xBF, 0xC0, 0xC2, 0xE0, 0xED, 0xF0, 0xF4, 0xFF,
    '/',  ',',  's',  'i',  '"',  '{',  '}',  '[',  ']',  ':',  '\\', '#'};
constexpr std::array<std::string_view, 18> kTokens = {std::string_view("\0", 1),
                                                      std::string_view("\0\0\0\0", 4),
                                                      ",s",
                                                      ",si",
                                                      "/parlavox/say/",
                                                      "#bundle",
                                                      "null",
                                                      "true",
                                                      "\"t\"",
                                                      "\"name\"",
                                                      "\"role\"",
                                                      "\"oscPort\"",
                                                      "[]",
                                                      "{}",
                                                      "\\u0000",
                                                      "\\ud800",
                                                      "1e999",
                                                      "\xF0\x9F\x8E\xAD"};

void mutateOnce(Input& input, const std::vector<Input>& seeds, Random& random) {
  const auto position = [&](std::size_t extra) { return random.below(input.size() + extra); };
  switch (random.below(8)) {
    case 0:  // flip one bit
      if (!input.empty()) {
        input[position(0)] ^= static_cast<std::uint8_t>(1u << random.below(8));
      }
      break;
    case 1:  // overwrite with a byte that matters
      if (!input.empty()) {
        input[position(0)] = kInterestingBytes[random.below(kInterestingBytes.size())];
      }
      break;
    case 2: {  // insert random bytes
      const std::size_t at = position(1);
      const std::size_t count = 1 + random.below(4);
      for (std::size_t i = 0; i < count; ++i) {
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(at),
                     static_cast<std::uint8_t>(random.next()));
      }
      break;
    }
    case 3: {  // erase a run
      if (input.empty()) {
        break;
      }
      const std::size_t at = position(0);
      const std::size_t count = 1 + random.below(std::min<std::size_t>(8, input.size() - at));
      const auto first = input.begin() + static_cast<std::ptrdiff_t>(at);
      input.erase(first, first + static_cast<std::ptrdiff_t>(count));
      break;
    }
    case 4:  // cut short
      input.resize(position(0 + 1));
      break;
    case 5: {  // copy a run elsewhere
      if (input.empty()) {
        break;
      }
      const std::size_t from = position(0);
      const std::size_t count = 1 + random.below(std::min<std::size_t>(16, input.size() - from));
      const Input chunk(input.begin() + static_cast<std::ptrdiff_t>(from),
                        input.begin() + static_cast<std::ptrdiff_t>(from + count));
      input.insert(input.begin() + static_cast<std::ptrdiff_t>(position(1)), chunk.begin(),
                   chunk.end());
      break;
    }
    case 6: {  // splice: this input's head, another seed's tail
      const Input& other = seeds[random.below(seeds.size())];
      input.resize(position(1));
      const std::size_t from = random.below(other.size() + 1);
      input.insert(input.end(), other.begin() + static_cast<std::ptrdiff_t>(from), other.end());
      break;
    }
    default: {  // insert a token
      const std::string_view token = kTokens[random.below(kTokens.size())];
      input.insert(input.begin() + static_cast<std::ptrdiff_t>(position(1)), token.begin(),
                   token.end());
      break;
    }
  }
  if (input.size() > kMaxInputSize) {
    input.resize(kMaxInputSize);
  }
}

bool readFile(const std::filesystem::path& path, Input& out) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return false;
  }
  out.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

// The input being run, so that a crash can show it.
const Input* gCurrent = nullptr;

// Raw write(2): the only output that is safe in a signal handler.
void writeToStderr(const char* data, std::size_t size) {
  const ssize_t written = write(STDERR_FILENO, data, size);
  static_cast<void>(written);  // nothing to be done about a failed write while dying
}

// On abort (a violated property, or a sanitizer report with abort_on_error), write the input in hex
// to stderr so that it can be turned into a seed file and debugged. No allocation here.
extern "C" void showInputAndDie(int signal) {
  if (gCurrent != nullptr) {
    constexpr char kHex[] = "0123456789abcdef";
    constexpr std::string_view kHead = "input being run, in hex:\n";
    writeToStderr(kHead.data(), kHead.size());
    for (const std::uint8_t byte : *gCurrent) {
      const char pair[2] = {kHex[byte >> 4], kHex[byte & 0xF]};
      writeToStderr(pair, 2);
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
  long mutations = 3000;
  std::uint64_t seed = 0x5EED;
  std::vector<std::filesystem::path> paths;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.starts_with("--mutations=")) {
      mutations = std::strtol(argv[i] + 12, nullptr, 10);
    } else if (arg.starts_with("--seed=")) {
      seed = std::strtoull(argv[i] + 7, nullptr, 0);
    } else {
      paths.emplace_back(arg);
    }
  }

  std::signal(SIGABRT, showInputAndDie);
  std::signal(SIGSEGV, showInputAndDie);

  std::vector<std::filesystem::path> files;
  for (const auto& path : paths) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) {
          files.push_back(entry.path());
        }
      }
    } else {
      files.push_back(path);
    }
  }
  std::sort(files.begin(), files.end());  // directory order differs between machines

  std::vector<Input> seeds;
  for (const auto& file : files) {
    Input input;
    if (!readFile(file, input)) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 2;
    }
    run(input);
    seeds.push_back(std::move(input));
  }
  if (seeds.empty()) {
    std::fprintf(stderr, "no seed files: give seed files or directories\n");
    return 2;
  }

  const Input empty;
  run(empty);
  Random random(seed);
  for (long i = 0; i < mutations; ++i) {
    Input input = seeds[random.below(seeds.size())];
    const std::size_t rounds = 1 + random.below(4);
    for (std::size_t r = 0; r < rounds; ++r) {
      mutateOnce(input, seeds, random);
    }
    run(input);
  }
  std::printf("%zu seeds and %ld mutations replayed (seed %#llx)\n", seeds.size(), mutations,
              static_cast<unsigned long long>(seed));
  return 0;
}
