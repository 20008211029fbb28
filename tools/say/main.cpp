// parlavox-say -o FILE.aiff TEXT
//
// Speaks TEXT with an espeak-ng voice and writes it to FILE.aiff as 16-bit PCM at the engine's
// own rate. Exits 0 on success; otherwise prints one line on standard error and exits non-zero (2
// for a wrong command line). TEXT is always the third argument and is never read as an option,
// whatever it looks like.
//
// The voice comes from the environment, since the server that runs this passes on its own and
// never changes the command line: PARLAVOX_VOICE (an espeak-ng voice or language, "fr", "de",
// "en-us"), else the language of the locale (LC_ALL, then LC_MESSAGES, then LANG, the first one
// set: "de_DE.UTF-8" speaks German), else English. A voice espeak-ng does not have is spoken in
// English, with one line on standard error.

#include <espeak-ng/espeak_ng.h>
#include <espeak-ng/speak_lib.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kUsage = 2;
constexpr int kFailed = 1;

// espeak-ng's callback is a plain function; the program speaks one text, so one buffer at file
// scope collects its samples.
std::vector<short>* collected = nullptr;

int collect(short* wav, int count, espeak_EVENT* /*events*/) {
  if (wav != nullptr && count > 0) {
    collected->insert(collected->end(), wav, wav + count);
  }
  return 0;  // go on
}

int fail(const std::string& message) {
  std::fprintf(stderr, "parlavox-say: %s\n", message.c_str());
  return kFailed;
}

std::string describe(espeak_ng_STATUS status) {
  std::vector<char> text(512, '\0');
  espeak_ng_GetStatusCodeMessage(status, text.data(), text.size());
  return text.data();
}

// The voice the environment asks for, as espeak-ng names languages ("de_DE.UTF-8@euro" is
// "de-de"); empty for English, espeak-ng's own default.
std::string wantedVoice() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
  if (const char* voice = std::getenv("PARLAVOX_VOICE"); voice != nullptr && *voice != '\0') {
    return voice;
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* locale = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe): one thread
    if (locale == nullptr || *locale == '\0') {
      continue;
    }
    std::string language(locale, std::strcspn(locale, ".@"));
    if (language == "C" || language == "POSIX") {
      return {};
    }
    std::replace(language.begin(), language.end(), '_', '-');
    std::transform(language.begin(), language.end(), language.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return language;
  }
  return {};
}

// The wanted voice if espeak-ng has it (a language it knows by another region counts), else
// English, said once on standard error.
espeak_ng_STATUS chooseVoice() {
  const std::string wanted = wantedVoice();
  if (!wanted.empty()) {
    espeak_VOICE language{};
    language.languages = wanted.c_str();
    if (espeak_ng_SetVoiceByName(wanted.c_str()) == ENS_OK ||
        espeak_ng_SetVoiceByProperties(&language) == ENS_OK) {
      return ENS_OK;
    }
    std::fprintf(stderr, "parlavox-say: espeak-ng has no voice \"%s\"; speaking English\n",
                 wanted.c_str());
  }
  return espeak_ng_SetVoiceByName(ESPEAKNG_DEFAULT_VOICE);
}

// Renders `text`; on failure returns false with `error` set.
bool speak(const char* text, std::vector<short>& samples, int& rate, std::string& error) {
  espeak_ng_InitializePath(nullptr);
  espeak_ng_ERROR_CONTEXT context = nullptr;
  espeak_ng_STATUS status = espeak_ng_Initialize(&context);
  espeak_ng_ClearErrorContext(&context);
  if (status != ENS_OK) {
    error = "couldn't start espeak-ng: " + describe(status);
    return false;
  }
  status = espeak_ng_InitializeOutput(ENOUTPUT_MODE_SYNCHRONOUS, 0, nullptr);
  if (status == ENS_OK) {
    status = chooseVoice();
  }
  if (status == ENS_OK) {
    collected = &samples;
    espeak_SetSynthCallback(collect);
    // Plain UTF-8 text: no SSML, no phoneme mnemonics, so every character is spoken as written.
    status = espeak_ng_Synthesize(text, std::strlen(text) + 1, 0, POS_CHARACTER, 0,
                                  espeakCHARS_UTF8, nullptr, nullptr);
  }
  if (status == ENS_OK) {
    status = espeak_ng_Synchronize();
  }
  rate = espeak_ng_GetSampleRate();
  if (status != ENS_OK) {
    error = "couldn't synthesize: " + describe(status);
  }
  espeak_ng_Terminate();
  collected = nullptr;
  return status == ENS_OK;
}

// Writes `samples` as a mono 16-bit AIFF; on failure returns false with `error` set.
bool writeAiff(const char* path, const std::vector<short>& samples, int rate, std::string& error) {
  SF_INFO info{};
  info.samplerate = rate;
  info.channels = 1;
  info.format = SF_FORMAT_AIFF | SF_FORMAT_PCM_16;
  SNDFILE* file = sf_open(path, SFM_WRITE, &info);
  if (file == nullptr) {
    error = std::string("couldn't create ") + path + ": " + sf_strerror(nullptr);
    return false;
  }
  const auto count = static_cast<sf_count_t>(samples.size());
  const bool written = sf_write_short(file, samples.data(), count) == count;
  if (!written) {
    error = std::string("couldn't write ") + path + ": " + sf_strerror(file);
  }
  const int closed = sf_close(file);
  if (written && closed != 0) {
    error = std::string("couldn't finish ") + path + ": " + sf_error_number(closed);
  }
  return written && closed == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 || std::strcmp(argv[1], "-o") != 0) {
    std::fputs("usage: parlavox-say -o FILE.aiff TEXT\n", stderr);
    return kUsage;
  }
  const char* path = argv[2];
  const char* text = argv[3];

  std::vector<short> samples;
  int rate = 0;
  std::string error;
  if (!speak(text, samples, rate, error)) {
    return fail(error);
  }
  if (rate <= 0) {
    return fail("espeak-ng reported no sample rate");
  }
  if (!writeAiff(path, samples, rate, error)) {
    ::unlink(path);  // leave no half-written file behind
    return fail(error);
  }
  return 0;
}
