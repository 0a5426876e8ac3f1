// Fuzz target: path search on a valid database.
//
// The input is a path (cut at its first NUL byte). The seed database is built once at
// initialisation in the memory media. Each run searches the path with kesDBMSearchByName from
// the root and with several current components, and with comp_searchByName from several
// starting components, and compares every result, error code and error detail with a model
// of the search written from the documented rules over the tree the harness built. A search
// never writes: any write to a medium stops the run.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "support.hpp"

namespace {

Session* g_s = nullptr;
kf::SeedTree g_tree;

struct Outcome {
    uint32_t key, error, detail;
};

// The search of one component and its subtree, as documented.
uint32_t modelSearch(size_t index, const char* path, Outcome& st) {
    const kf::SeedComponent& c = g_tree[index];
    const size_t n = c.name.size();
    if (strncmp(path, c.name.c_str(), n) != 0) return st.error = KESDB_ERR_COMP_NOMATCH, st.detail = c.key, 0;
    const char* rest = path + n;
    if (*rest == '\0') return c.key;
    if (c.leaf) return 0;
    if (c.children.empty() && *rest == '/') return c.key;
    for (size_t child : c.children) {
        const uint32_t found = modelSearch(child, rest, st);
        if (found != 0) return found;
        if (st.error == KESDB_ERR_COMP_ENDSEARCH) return 0;
    }
    if (st.error != KESDB_ERR_COMP_ENDSEARCH) st.error = KESDB_ERR_COMP_ENDSEARCH, st.detail = c.key;
    return 0;
}

// kesDBMSearchByName with the current component at `current` (a node of the tree).
Outcome modelPublic(size_t current, const char* path, Outcome st) {
    if (path[0] == '/') {
        st.key = modelSearch(0, path, st);
        if (st.key == 0 && st.error == KESDB_ERR_COMP_ENDSEARCH) st.error = KESDB_ERR_COMP_NOMATCH;
        return st;
    }
    for (size_t child : g_tree[current].children) {
        st.key = modelSearch(child, path, st);
        if (st.key != 0) return st;
        if (st.error == KESDB_ERR_COMP_ENDSEARCH) break;
    }
    if (st.error != KESDB_ERR_COMP_ENDSEARCH) st.error = KESDB_ERR_COMP_ENDSEARCH, st.detail = 0;
    return st.key = 0, st;
}

void compare(const char* what, const Outcome& want, uint32_t got, const Session* s) {
    if (want.key == got && want.error == s->error && want.detail == s->errorDetail) return;
    fprintf(stderr, "%s: want key %u error %u detail %u, got key %u error %u detail %u\n", what, want.key, want.error,
            want.detail, got, s->error, s->errorDetail);
    kf::fail("the search differs from its documented rules");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_s = kf::startDatabase();
    g_tree = kf::buildSeedDatabase(g_s, kf::kSeedFull);
    kf::g_writes = 0;
    kf::capAllocations();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    const char* p = path.c_str();
    Session* s = g_s;

    // The public call from every node of the tree as the current component, starting once
    // from a clean session and once from a session that still holds the end-of-search code.
    for (size_t i = 0; i < g_tree.size(); ++i) {
        if (g_tree[i].leaf) continue;
        const uint32_t key = g_tree[i].key;
        for (uint32_t stale : {0u, static_cast<uint32_t>(KESDB_ERR_COMP_ENDSEARCH)}) {
            session_setError(s, 0, 0);
            if (kesDBMSetCurrentComponent(s, key) != key) kf::fail("cannot make a node current");
            session_setError(s, stale, 7);
            const Outcome want = modelPublic(i, p, Outcome{0, stale, 7});
            compare("kesDBMSearchByName", want, kesDBMSearchByName(s, p), s);
        }
        // The search itself from this component.
        session_setError(s, 0, 0);
        Outcome st{0, 0, 0};
        st.key = modelSearch(i, p, st);
        compare("comp_searchByName", st, comp_searchByName(s, key, p), s);
    }
    // A leaf as the current component is read as a node; only robustness is checked here.
    const uint32_t leaf = std::find_if(g_tree.begin(), g_tree.end(), [](auto& c) { return c.leaf; })->key;
    session_setError(s, 0, 0);
    kesDBMSetCurrentComponent(s, leaf);
    kesDBMSearchByName(s, p);
    comp_searchByName(s, leaf, p);
    if (kf::g_writes != 0) kf::fail("a search wrote to a medium");
    if (kf::openDescriptors() != 0) kf::fail("a medium was left open after a search");
    return 0;
}
