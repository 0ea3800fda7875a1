// A small mutation fuzzer for the targets in this folder, for compilers without libFuzzer.
// It takes the same command line as libFuzzer's: -runs=N and seed files or directories.
// Every input is a seed changed by a few random edits (bytes flipped, inserted or deleted,
// digits and lines replaced, numbers made huge or negative, the input cut short).
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::string> readSeeds(const std::vector<std::string>& paths) {
    std::vector<std::string> seeds;
    const auto add = [&](const std::filesystem::path& file) {
        std::ifstream in(file, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    for (const std::string& path : paths) {
        if (std::filesystem::is_directory(path)) {
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file()) add(entry.path());
        } else {
            add(path);
        }
    }
    if (seeds.empty()) seeds.emplace_back();
    return seeds;
}

std::string mutate(std::string text, const std::vector<std::string>& seeds, std::mt19937& random) {
    static const char* const tokens[] = {
        "-1",  "0", "11", "21", "101", "1001", "99999999999",    "-2147483648",   "1e308",
        "nan", "!", "\r", "\n", " ",   "\t",   "Calculation # ", "Interactions:", "*"};
    const auto pick = [&](std::size_t n) {
        return n == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
    };
    const int edits = 1 + static_cast<int>(pick(8));
    for (int e = 0; e < edits; ++e) {
        const std::size_t at = pick(text.size() + 1);
        switch (pick(7)) {
        case 0: // flip a byte
            if (!text.empty())
                text[std::min(at, text.size() - 1)] ^= static_cast<char>(1 << pick(8));
            break;
        case 1: // insert a random byte
            text.insert(at, 1, static_cast<char>(pick(256)));
            break;
        case 2: // delete a run
            text.erase(at, pick(64));
            break;
        case 3: // insert a token that counts or numbers are made of
            text.insert(at, tokens[pick(std::size(tokens))]);
            break;
        case 4: // replace a digit
            if (const std::size_t d = text.find_first_of("0123456789", at); d != std::string::npos)
                text[d] = static_cast<char>('0' + pick(10));
            break;
        case 5: // copy a line of another seed here
        {
            const std::string& other = seeds[pick(seeds.size())];
            const std::size_t from = other.find('\n', pick(other.size() + 1));
            if (from != std::string::npos)
                text.insert(at, other.substr(from, other.find('\n', from + 1) - from));
            break;
        }
        default: // cut the input short
            text.resize(at);
        }
    }
    return text;
}

// The input under test, written to the file crash-input when the target aborts or crashes, so
// that the fault can be run again: fuzz_TARGET crash-input.
const std::string* current = nullptr;

extern "C" void saveCurrentInput(int signal) {
    if (current != nullptr) {
        const int fd = ::open("crash-input", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            (void)!::write(fd, current->data(), current->size());
            ::close(fd);
        }
        static const char note[] = "fuzz driver: the failing input is in crash-input\n";
        (void)!::write(2, note, sizeof note - 1);
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

} // namespace

int main(int argc, char** argv) {
    for (int signal : {SIGABRT, SIGSEGV, SIGFPE, SIGBUS}) std::signal(signal, saveCurrentInput);
    long runs = 10000;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "-runs=", 6) == 0)
            runs = std::atol(argv[i] + 6);
        else if (argv[i][0] != '-')
            paths.emplace_back(argv[i]);
    }
    const std::vector<std::string> seeds = readSeeds(paths);
    std::mt19937 random(20261123);
    std::size_t bytes = 0;
    for (const std::string& seed : seeds) {
        current = &seed;
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    }
    for (long run = 0; run < runs; ++run) {
        const std::string input =
            mutate(seeds[static_cast<std::size_t>(run) % seeds.size()], seeds, random);
        bytes += input.size();
        current = &input;
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
    std::printf("%ld mutated inputs (%zu bytes) from %zu seeds: no fault\n", runs, bytes,
                seeds.size());
    return 0;
}
