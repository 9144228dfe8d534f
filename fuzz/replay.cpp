// Runs a fuzz target's checks without libFuzzer, as a test of `make check`:
// over the files named on the command line, then over --runs=N inputs made
// from a fixed seed (the same inputs every run). The bytes of each input come
// from one of a few alphabets, so that the structured targets see small
// numbers, text and escapes as well as noise. A check that fails aborts; the
// input is then written to replay-failure-<pid>, for the fuzz target itself:
//   ./fuzz_<name> replay-failure-<pid>
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::uint8_t> g_input;

void keep_input(int) {
    char path[64];
    std::snprintf(path, sizeof path, "replay-failure-%d", static_cast<int>(getpid()));
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0 && write(fd, g_input.data(), g_input.size()) >= 0) {
        const char said[] = "the failing input is in replay-failure-<pid> of the working directory\n";
        (void)!write(STDERR_FILENO, said, sizeof said - 1);
    }
    std::signal(SIGABRT, SIG_DFL);
    std::raise(SIGABRT);
}

// Like libFuzzer, never a null pointer, even for no bytes.
void run() {
    static const std::uint8_t none = 0;
    LLVMFuzzerTestOneInput(g_input.empty() ? &none : g_input.data(), g_input.size());
}

std::vector<std::uint8_t> made(std::mt19937_64& rng) {
    const std::size_t size = rng() % 8 == 0 ? rng() % 4097 : rng() % 300;
    const int alphabet = static_cast<int>(rng() % 4);
    std::vector<std::uint8_t> bytes(size);
    for (std::uint8_t& b : bytes) {
        const auto r = rng();
        switch (alphabet) {
        case 0: // anything
            b = static_cast<std::uint8_t>(r);
            break;
        case 1: // small numbers
            b = static_cast<std::uint8_t>(r % 16);
            break;
        case 2: // text with a backslash now and then (libFuzzer's string escape)
            b = r % 23 == 0 ? '\\' : static_cast<std::uint8_t>(' ' + r % 95);
            break;
        default: // UTF-8 bytes: ASCII, continuation bytes and every lead
            b = static_cast<std::uint8_t>(r % 3 == 0 ? r % 128 : r % 3 == 1 ? 0x80 + r % 64 : 0xC0 + r % 64);
            break;
        }
    }
    return bytes;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGABRT, keep_input);
    long runs = 0, files = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--runs=", 0) == 0) {
            runs = std::atol(arg.c_str() + 7);
            continue;
        }
        std::vector<std::string> paths{arg};
        if (std::filesystem::is_directory(arg)) {
            paths.clear();
            for (const auto& e : std::filesystem::directory_iterator(arg))
                paths.push_back(e.path());
        }
        for (const std::string& p : paths) {
            std::ifstream in(p, std::ios::binary);
            g_input.assign(std::istreambuf_iterator<char>(in), {});
            run(), ++files;
        }
    }
    std::mt19937_64 rng(20261124);
    for (long i = 0; i < runs; ++i)
        g_input = made(rng), run();
    std::printf("%ld files and %ld made inputs passed\n", files, runs);
    return 0;
}
