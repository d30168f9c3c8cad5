// A libFuzzer entry point as a plain executable, for the regular (gcc) test
// builds: feeds every seed file, then a fixed number of deterministic
// mutations of the seeds (bit flips, interesting bytes and tokens, inserted,
// deleted, duplicated and repeated runs, splices, truncation). The same
// arguments always produce the same inputs, so a failure in CI reproduces
// locally with the same command.
//
// usage: <target> [--mutations N] PATH...
//   PATH        a seed file or a directory of seed files
//   --mutations mutated inputs in total (default 2000), spread over the seeds
//
// A crash, sanitizer report or abort fails the run; under a sanitizer the
// input that failed is written to ./crash-<target>-<input> first.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

namespace fs = std::filesystem;
using Input = std::vector<uint8_t>;

// Upper bound of a generated input: the targets' own limits are far above
// what mutations of small seeds reach, and the run stays quick.
constexpr size_t kMaxInputBytes = 1 << 20;

// Bytes and tokens that decoders of JSON and CBOR treat specially.
// clang-format off
const std::vector<std::string> kTokens = {
    "{", "}", "[", "]", "\"", ":", ",", "\\", "\\u", "\\ud800", "null", "true", "false", "-0",
    "1e999", "-1e999", "0.5", "4294967296", "%@", "%i", "%li", "%s", "%n", "%",
    "\xc3\xa9", "\xed\xa0\x80", "\xff", "\x7f", "\x80", "\x9f", "\xbf", "\xfb", "\xf9\x7e\x00",
    "\x1b\xff\xff\xff\xff\xff\xff\xff\xff", "\xa1", "\x81", "\x5f", "\x7f\xff"};
// clang-format on

std::string gTargetName = "fuzz";
std::string gInputName;
const Input* gCurrent = nullptr;

void writeCurrentInput() {
    if (!gCurrent) return;
    std::string name = "crash-" + gTargetName + "-" + gInputName;
    std::replace(name.begin(), name.end(), '/', '_');
    if (FILE* f = std::fopen(name.c_str(), "wb")) {
        std::fwrite(gCurrent->data(), 1, gCurrent->size(), f);
        std::fclose(f);
        std::fprintf(stderr, "%s: input %s written to %s\n", gTargetName.c_str(),
                     gInputName.c_str(), name.c_str());
    }
}

std::vector<fs::path> seedFiles(const std::vector<std::string>& paths) {
    std::vector<fs::path> files;
    for (const auto& p : paths) {
        std::error_code ec;
        if (fs::is_directory(p, ec)) {
            for (const auto& e : fs::directory_iterator(p, ec))
                if (e.is_regular_file(ec)) files.push_back(e.path());
        } else if (fs::is_regular_file(p, ec)) {
            files.emplace_back(p);
        } else {
            std::fprintf(stderr, "%s: no seed file or directory %s\n", gTargetName.c_str(),
                         p.c_str());
            std::exit(2);
        }
    }
    // Directory order differs between file systems; the run must not.
    std::sort(files.begin(), files.end());
    return files;
}

Input readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Input(std::istreambuf_iterator<char>(in), {});
}

class Mutator {
  public:
    Mutator(uint64_t seed, const std::vector<Input>& seeds) : rng_(seed), seeds_(seeds) {}

    Input mutate(const Input& from) {
        Input out = from;
        const int steps = 1 + int(below(4));
        for (int i = 0; i < steps; ++i) step(out);
        if (out.size() > kMaxInputBytes) out.resize(kMaxInputBytes);
        return out;
    }

  private:
    uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }

    void step(Input& b) {
        const size_t at = below(b.size() + 1);
        switch (below(9)) {
            case 0:  // flip one bit
                if (!b.empty()) b[below(b.size())] ^= uint8_t(1u << below(8));
                break;
            case 1:  // one random byte
                if (!b.empty()) b[below(b.size())] = uint8_t(rng_());
                break;
            case 2: {  // a token
                const std::string& t = kTokens[below(kTokens.size())];
                b.insert(b.begin() + long(at), t.begin(), t.end());
                break;
            }
            case 3: {  // a few random bytes
                const size_t n = 1 + below(8);
                for (size_t i = 0; i < n; ++i) b.insert(b.begin() + long(at), uint8_t(rng_()));
                break;
            }
            case 4: {  // delete a run
                if (at >= b.size()) break;
                const size_t n = 1 + below(std::min<size_t>(b.size() - at, 16));
                b.erase(b.begin() + long(at), b.begin() + long(at + n));
                break;
            }
            case 5: {  // duplicate a run elsewhere
                if (b.empty()) break;
                const size_t from = below(b.size()),
                             n = 1 + below(std::min<size_t>(b.size() - from, 32));
                Input run(b.begin() + long(from), b.begin() + long(from + n));
                b.insert(b.begin() + long(below(b.size() + 1)), run.begin(), run.end());
                break;
            }
            case 6: {  // repeat a run many times: nesting, long strings, big counts
                if (b.empty()) break;
                const size_t from = below(b.size()),
                             n = 1 + below(std::min<size_t>(b.size() - from, 4));
                Input run(b.begin() + long(from), b.begin() + long(from + n));
                const size_t times = 16 + below(1024);
                Input many;
                many.reserve(run.size() * times);
                for (size_t i = 0; i < times; ++i) many.insert(many.end(), run.begin(), run.end());
                b.insert(b.begin() + long(from), many.begin(), many.end());
                break;
            }
            case 7: {  // splice with another seed
                const Input& other = seeds_[below(seeds_.size())];
                const size_t cut = below(other.size() + 1);
                b.resize(at);
                b.insert(b.end(), other.begin() + long(cut), other.end());
                break;
            }
            default:  // truncate
                b.resize(at);
                break;
        }
    }

    std::mt19937_64 rng_;
    const std::vector<Input>& seeds_;
};

void onFatalSignal(int sig) {
    writeCurrentInput();
    signal(sig, SIG_DFL);
    raise(sig);
}

}  // namespace

int main(int argc, char** argv) {
    gTargetName = fs::path(argv[0]).filename().string();
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t mutations = 2000;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--mutations" && i + 1 < argc)
            mutations = std::strtoull(argv[++i], nullptr, 10);
        else
            paths.push_back(argv[i]);
    }
    const auto files = seedFiles(paths);
    if (files.empty()) {
        std::fprintf(stderr, "%s: no seeds given\n", gTargetName.c_str());
        return 2;
    }
    if (__sanitizer_set_death_callback) {
        __sanitizer_set_death_callback(writeCurrentInput);
    } else {
        for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) signal(sig, onFatalSignal);
    }

    std::vector<Input> seeds;
    for (const auto& f : files) seeds.push_back(readFile(f));
    auto run = [&](const Input& input, const std::string& name) {
        gInputName = name;
        gCurrent = &input;
        // libFuzzer hands over a buffer of exactly the input's size; so does
        // this, so that reads past the end are caught the same way.
        std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(input.size(), 1)]);
        if (!input.empty()) std::memcpy(copy.get(), input.data(), input.size());
        LLVMFuzzerTestOneInput(copy.get(), input.size());
        gCurrent = nullptr;
    };
    for (size_t i = 0; i < seeds.size(); ++i) run(seeds[i], files[i].filename().string());
    Mutator mutator(1, seeds);
    for (size_t k = 0; k < mutations; ++k) {
        const size_t from = k % seeds.size();
        run(mutator.mutate(seeds[from]),
            "m" + std::to_string(k) + "-" + files[from].filename().string());
    }
    std::printf("%s: %zu seeds and %zu mutations passed\n", gTargetName.c_str(), seeds.size(),
                mutations);
    return 0;
}
