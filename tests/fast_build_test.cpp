// A database that "kesdb create --from" builds holds, byte for byte, the media that the
// library's own calls make through the synchronous drivers for the same tree.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testkit.hpp"

namespace {

constexpr uint32_t kSize = 1024 * 1024;  // the tool's default medium size

const char* const kDescription =
    R"({"children": [{"name": "net", "children": [)"
    R"({"name": "port", "type": "Uint32", "current": 8080, "range": {"min": 1, "max": 65535, "step": 1}},)"
    R"({"name": "host", "type": "String", "size": 16, "current": "dev"}]},)"
    R"({"name": "mode", "type": "Uint32", "current": 2}]})";

// One leaf the way the tool makes it: constraint, three values tied to it, the component.
uint32_t leaf(Session* s, const DBMInitParam& p, uint32_t parent, uint32_t previous, const char* name,
              uint32_t type, const std::string& data, const RangeRecordU32* range) {
    const uint32_t nameKey = kesDBMCreateString(s, name, p.stringMedium);
    uint32_t constraint = 0;
    if (range) {
        RangeRecordU32 r = *range;
        constraint = rangeU32_new(s, &r) ? r.key : 0;
    }
    uint32_t v[3];
    for (uint32_t& key : v) {
        key = kesDBMCreateValue(s, type, 0, data.data(), static_cast<int32_t>(data.size()), p.valueMedium);
        if (constraint) kesDBMSetConstraintKey(s, key, constraint);
    }
    return kesDBMCreateLeaf(s, nameKey, parent, previous, v[0], v[1], v[2], 0);
}

void buildReference(Session* s, const DBMInitParam& p) {
    NodeRecord root{};
    ASSERT_NE(comp_newNode(s, &root), nullptr);
    root.comp.stringKey = kesDBMCreateString(s, "/", p.stringMedium);
    root.comp.kind = KESDB_KIND_NODE;
    ASSERT_EQ(comp_setNode(s, &root), 0);
    ASSERT_EQ(flst_m_setRoot(s, p.componentMedium, root.comp.key), 0);
    const uint32_t net = kesDBMCreateNode(s, kesDBMCreateString(s, "net", p.stringMedium), root.comp.key, 0, 0);
    const uint32_t port = 8080, mode = 2;
    RangeRecordU32 range{};
    range.type = Uint32;
    range.min = 1;
    range.max = 65535;
    range.step = 1;
    auto word = [](const uint32_t& v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    const uint32_t portKey = leaf(s, p, net, 0, "/port", Uint32, word(port), &range);
    ASSERT_NE(leaf(s, p, net, portKey, "/host", String, std::string("dev", 3) + std::string(13, '\0'), nullptr), 0u);
    ASSERT_NE(leaf(s, p, root.comp.key, net, "mode", Uint32, word(mode), nullptr), 0u);
    EXPECT_EQ(s->error, 0u);
}

class FastBuild : public ::testing::TestWithParam<bool> {};  // four files through the file driver

TEST_P(FastBuild, MediaEqualThoseOfSynchronousLibraryCalls) {
    const bool files = GetParam();
    const std::vector<std::string> media =
        files ? std::vector<std::string>{"components.med", "values.med", "constraints.med", "strings.med"}
              : std::vector<std::string>{"medium.bin"};
    kt::DbOptions o;
    o.start = false;
    o.mediumSize = files ? 0 : kSize;
    if (files) o.componentMedium = 1, o.valueMedium = 2, o.constraintMedium = 3, o.stringMedium = 4;
    kt::Db ref(o);
    std::string conf;
    for (const std::string& m : files ? media : std::vector<std::string>{}) {
        ASSERT_EQ(kesdb_layMedium(ref.dir.file(m).c_str(), kSize, 0), 0);
        conf += kt::libPath("libkesdrv_file.so") +
                " fileMedia_open fileMedia_close fileMedia_read fileMedia_write fileMedia_seek fileMedia_sync " +
                ref.dir.file(m) + "\n";
    }
    kt::writeFile(ref.param.mediaConfigPath, conf);
    ASSERT_GT(ref.start(), 0);
    buildReference(&ref.s, ref.param);
    ref.stop();

    kt::TempDir dir;
    kt::writeFile(dir.file("tree.json"), kDescription);
    std::vector<std::string> args{"create", "db", "--from", "tree.json"};
    if (files) args.push_back("--files");
    const kt::Outcome r = kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args));
    ASSERT_EQ(r.code, 0) << r.err;
    for (const std::string& m : media)
        EXPECT_EQ(kt::readFile(dir.file("db/" + m)), kt::readFile(ref.dir.file(m))) << m;
}

INSTANTIATE_TEST_SUITE_P(Layouts, FastBuild, ::testing::Bool());

}  // namespace
