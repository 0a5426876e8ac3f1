// A database that "kesdb create --from" builds holds, byte for byte, the media that the
// library's own calls make through the synchronous drivers for the same tree.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mediakit.hpp"
#include "testkit.hpp"

namespace {

constexpr uint32_t kSize = 1024 * 1024;  // the tool's default medium size

// One leaf the way the tool makes it: constraint, three values tied to it, the component.
uint32_t leaf(Session* s, uint32_t parent, uint32_t previous, const char* name, uint32_t type, const std::string& data,
              uint32_t max = 0) {
    const auto* p = db_getDb(s->dbId);
    const uint32_t nameKey = kesDBMCreateString(s, name, p->stringMedium);
    RangeRecordU32 range{};
    range.type = Uint32, range.min = 1, range.max = max, range.step = 1;
    const uint32_t constraint = max && rangeU32_new(s, &range) ? range.key : 0;
    uint32_t v[3];
    for (uint32_t& key : v) {
        key = kesDBMCreateValue(s, type, 0, data.data(), static_cast<int32_t>(data.size()), p->valueMedium);
        if (constraint) kesDBMSetConstraintKey(s, key, constraint);
    }
    return kesDBMCreateLeaf(s, nameKey, parent, previous, v[0], v[1], v[2], 0);
}

class FastBuild : public ::testing::TestWithParam<bool> {};  // four files through the file driver

TEST_P(FastBuild, MediaEqualThoseOfSynchronousLibraryCalls) {
    const bool files = GetParam();
    const std::vector<std::string> media = files ? std::vector<std::string>{"components.med", "values.med", "constraints.med", "strings.med"}
                                                 : std::vector<std::string>{"medium.bin"};
    kt::DbOptions o;
    o.start = false;
    o.mediumSize = files ? 0 : kSize;
    if (files) o.componentMedium = 1, o.valueMedium = 2, o.constraintMedium = 3, o.stringMedium = 4;
    kt::Db ref(o);
    for (const std::string& m : files ? media : std::vector<std::string>{}) {
        ASSERT_EQ(kesdb_layMedium(ref.dir.file(m).c_str(), kSize, 0), 0);
        o.mediaConfig += mk::driverLine("libkesdrv_file.so", "fileMedia_", ref.dir.file(m));
    }
    kt::writeFile(ref.param.mediaConfigPath, o.mediaConfig);
    ASSERT_GT(ref.start(), 0);
    Session* s = &ref.s;
    NodeRecord root{};
    ASSERT_NE(comp_newNode(s, &root), nullptr);
    root.comp.stringKey = kesDBMCreateString(s, "/", ref.param.stringMedium);
    root.comp.kind = KESDB_KIND_NODE;
    ASSERT_EQ(comp_setNode(s, &root), 0);
    ASSERT_EQ(flst_m_setRoot(s, ref.param.componentMedium, root.comp.key), 0);
    const uint32_t net = kesDBMCreateNode(s, kesDBMCreateString(s, "net", ref.param.stringMedium), root.comp.key, 0, 0);
    auto word = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    const uint32_t portKey = leaf(s, net, 0, "/port", Uint32, word(8080), 65535);
    ASSERT_NE(leaf(s, net, portKey, "/host", String, std::string("dev", 3) + std::string(13, '\0')), 0u);
    ASSERT_NE(leaf(s, root.comp.key, net, "mode", Uint32, word(2)), 0u);
    EXPECT_EQ(s->error, 0u);
    ref.stop();

    kt::TempDir dir;
    kt::writeFile(dir.file("tree.json"),
                  R"({"children": [{"name": "net", "children": [)"
                  R"({"name": "port", "type": "Uint32", "current": 8080, "range": {"min": 1, "max": 65535, "step": 1}},)"
                  R"({"name": "host", "type": "String", "size": 16, "current": "dev"}]},)"
                  R"({"name": "mode", "type": "Uint32", "current": 2}]})");
    std::vector<std::string> args{"create", "db", "--from", "tree.json"};
    if (files) args.push_back("--files");
    ASSERT_EQ(kt::finishProgram(dir, kt::spawnProgram(dir, "kesdb", args)).code, 0);
    for (const std::string& m : media) EXPECT_EQ(kt::readFile(dir.file("db/" + m)), kt::readFile(ref.dir.file(m))) << m;
}

INSTANTIATE_TEST_SUITE_P(Layouts, FastBuild, ::testing::Bool());

}  // namespace
