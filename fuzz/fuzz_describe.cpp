// Fuzz target: the kesdb tool's description and import path.
//
// The input is a description (JSON text). Each run checks it as "kesdb import" does; a
// description that passes is built into a database the target made once with the tool's own
// create (its single medium put back before every run), exported again, and the export must
// read back as a description. A refusal (a Failure, a full medium, a hook index that is not
// configured) is an allowed outcome; a crash, a sanitizer report, a leak, a hang or an export
// that does not read back is not.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>

#include "support.hpp"
#include "tools/commands.hpp"
#include "tools/database.hpp"
#include "tools/description.hpp"
#include "tools/treeio.hpp"

namespace {

std::string g_base, g_dir, g_medium;

void writeMedium() {
    std::ofstream out(g_dir + "/" + kesdb::kSingleMedium, std::ios::binary | std::ios::trunc);
    out << g_medium;
    if (!out) kf::fail("cannot put the medium back");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    kf::setUp();
    g_base = kf::tempDirWithTable("describe");
    g_dir = g_base + "/db";
    kesdb::CreateOptions o;
    o.dir = g_dir;
    o.size = 64 * 1024;
    try {
        kesdb::cmdCreate(o);
    } catch (const kesdb::Failure& f) {
        std::fprintf(stderr, "%s\n", f.what.c_str());
        kf::fail("the database cannot be made");
    }
    std::ifstream in(g_dir + "/" + kesdb::kSingleMedium, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    g_medium = bytes.str();
    std::atexit([] {
        const std::string command = "rm -rf '" + g_base + "'";
        if (std::system(command.c_str()) != 0) std::fprintf(stderr, "cannot remove %s\n", g_base.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<kesdb::Item> items;
    try {
        items = kesdb::parseDescriptionText(text, "input");
    } catch (const kesdb::Failure&) {
        return 0;
    }
    writeMedium();
    std::string exported;
    try {
        kesdb::Database db(g_dir);
        kesdb::importInto(db, items, kesdb::highestHook(items));  // hook indexes are stored, never called
        exported = kesdb::exportText(db);
    } catch (const kesdb::Failure&) {
        return 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
    try {
        kesdb::parseDescriptionText(exported, "export");
    } catch (const kesdb::Failure& f) {
        std::fprintf(stderr, "%s\n", f.what.c_str());
        kf::fail("an export does not read back");
    }
    return 0;
}
