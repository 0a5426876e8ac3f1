// Writes the seed corpora of the fuzz targets into DIR/media, DIR/search and DIR/config:
//   media   the seed databases (built through the library in the memory media: full, small,
//           one leaf per type) as media images, each with an operation program: none, one that
//           runs every operation once, and a few pseudo-random ones (fixed generator seed);
//   search  paths that reach components, stop inside the tree or miss it;
//   config  configuration files: good and bad driver and hook lines, comments, blank lines,
//           an over-long line, more driver lines than the media table holds.
// Usage: fuzz_seeds DIR
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support.hpp"

namespace {

template <class Text>
void writeText(const std::string& path, const Text& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (!f || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0) kf::fail("cannot write a seed");
}

// A program that runs each of the 24 operations once, with selectors spread over the pools.
kf::Bytes everyOperation(uint8_t salt) {
    kf::Bytes p;
    for (uint8_t code = 0; code < 24; ++code) {
        const int op[8] = {code, code * 3 + salt, code + 2 * salt, code * 5 + 1, salt + 1, 0, 0, code + salt};
        for (int byte : op) p.push_back(static_cast<uint8_t>(byte));
    }
    return p;
}

kf::Bytes randomProgram(uint32_t& state, size_t ops) {
    kf::Bytes p(ops * 8);
    for (uint8_t& byte : p) byte = static_cast<uint8_t>((state = state * 1103515245u + 12345u) >> 16);
    return p;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 1;
    }
    const std::string dir = argv[1];
    for (const char* sub : {"", "/media", "/search", "/config"}) mkdir((dir + sub).c_str(), 0775);

    Session* s = kf::startDatabase();

    // Media: each seed database with several programs.
    const std::pair<unsigned, const char*> seeds[] = {
        {kf::kSeedSmall, "small"}, {kf::kSeedTypes, "types"}, {kf::kSeedFull, "full"}};
    uint32_t state = 1;
    for (const auto& [which, name] : seeds) {
        kf::buildSeedDatabase(s, which);
        std::vector<std::pair<std::string, kf::Bytes>> programs = {
            {"-none", {}}, {"-every", everyOperation(0)}, {"-every2", everyOperation(7)}};
        for (int i = 0; i < 4; ++i) programs.push_back({"-random" + std::to_string(i), randomProgram(state, 16)});
        for (const auto& [suffix, program] : programs)
            writeText(dir + "/media/" + name + suffix + ".bin", kf::serialize(kf::g_media, program));
    }

    // Search: paths.
    for (size_t i = 0; i < kf::kPathCount; ++i)
        writeText(dir + "/search/path" + std::to_string(i), std::string(kf::kPaths[i]));

    // Configuration files.
    const std::string drv =
        "libkesdrv_file.so fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek "
        "fileMedia_sync ";
    const std::string fault =
        "/lib/libkesdrv_fault.so faultMedia_open faultMedia_close faultMedia_read faultMedia_write "
        "faultMedia_seek faultMedia_sync ";
    const std::vector<std::pair<std::string, std::string>> configs = {
        {"media-good", drv + "/dev/one\n" + fault + "two extra tokens\n"},
        {"hook-good", kf::kHookConfig},
        {"mixed",
         "# drivers and hooks\n" + drv + "m1 # trailing comment\n\n   \t# indented comment\n" +
             "libkeshook_sample.so NULL NULL NULL NULL\n" + drv + "m2\n"},
        {"bad-lines",
         "libnothere.so a b c d e f g\nlibkesdrv_file.so\nlibkesdrv_file.so fileMedia_open\n"
         "libkesdrv_file.so fileMedia_open fileMedia_close nosuch fileMedia_write fileMedia_seek fileMedia_sync m\n"
         "libkeshook_sample.so policy_preSet null NULL NULL\nlibkeshook_sample.so NULL NULL NULL\n" +
             drv + "\n"},
        {"hook-trailing-blank", "libkeshook_sample.so test_refuse5 NULL NULL log_postGet\n\n"},
        {"long-line", drv + std::string(5000, 'x') + "\n" + drv + "after\n"},
        {"no-newline", "libkeshook_sample.so NULL NULL NULL NULL"},
    };
    for (const auto& [name, text] : configs) writeText(dir + "/config/" + name, text);
    std::string many;
    for (int i = 0; i < 130; ++i) many += drv + "m" + std::to_string(i) + "\n";
    writeText(dir + "/config/many-drivers", many);
    return 0;
}
