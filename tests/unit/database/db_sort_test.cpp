// The orders of lists: by field, folded or by bytes, containers first, the
// shuffle, and large lists sorted stably.
#include "config/upnp_ini.h"
#include "unit/database/db_test_support.h"

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

typedef std::vector<std::string> titles;

class DbSort : public DbStoreTest {
protected:
    int next = 0;
    db_object* track(db_test_fields fields)
    {
        return add("/m/sort" + std::to_string(next++) + ".mp3", DB_OBJ_AUDIO, fields);
    }
    static titles sorted(const char* criteria, int32_t type = DB_OBJ_CONTAINER, const HTTP_request* request = nullptr)
    {
        std::vector<db_object*> v(size_t(db_container_child_count(db_all_music)));
        db_container_children(db_all_music, v.data(), int32_t(v.size()));
        db_sort_prepare(criteria, type, request);
        db_sort_objects(v.data(), int32_t(v.size()));
        titles out;
        for (db_object* o : v)
            out.push_back(db_object_get_str(o, DBK_TITLE));
        return out;
    }
};

struct sort_case { const char* criteria; int32_t type; const HTTP_request* request; titles order; };

// Each field's order differs from the title's, so a criterion that fell
// back to the title would show. A folder goes first in either direction.
TEST_F(DbSort, ContainersFirstThenEachCriterionByItsFieldFoldingAccentsUnlessTheClientSortsBytes)
{
    const std::string A = "\xC3\x84rger";
    track({{DBK_TITLE, "Zebra"}, {DBK_ARTIST, "Abba"}, {DBK_TRACK, "2"}, {DBK_DATE, "2001-01-01"}});
    track({{DBK_TITLE, A.c_str()}, {DBK_ARTIST, "Cher"}, {DBK_TRACK, "3"}, {DBK_DATE, "1999-05-05"}});
    track({{DBK_TITLE, "apple"}, {DBK_ARTIST, "Bono"}, {DBK_TRACK, "1"}, {DBK_DATE, "2010-12-12"}});
    folder(DB_OBJ_CONTAINER, "zz folder", db_all_music);
    db_set_client_flag_probe(db_test_probe_flags);
    const sort_case cases[] = {
        {"+dc:title", 0, nullptr, {A, "apple", "Zebra"}},
        {"-dc:title", 0, nullptr, {"Zebra", "apple", A}},
        {"+dc:title", 0, db_client, {"apple", "Zebra", A}},
        {"+upnp:artist", 0, nullptr, {"Zebra", "apple", A}},
        {"+upnp:originalTrackNumber", 0, nullptr, {"apple", "Zebra", A}},
        {"+dc:date", 0, nullptr, {A, "Zebra", "apple"}},
        {"+foo:bar,+dc:title", 0, nullptr, {A, "apple", "Zebra"}},
        {"+dc:titleX", 0, nullptr, {A, "apple", "Zebra"}},        // tokens match by prefix
        // No criteria: newest first, but music containers by title.
        {nullptr, DB_OBJ_MUSIC_ALBUM, nullptr, {"apple", "Zebra", A}},
        {"", DB_OBJ_CONTAINER, nullptr, {"apple", "Zebra", A}},
        {nullptr, DB_OBJ_MUSIC_CONTAINER, nullptr, {A, "apple", "Zebra"}},
    };
    for (const sort_case& c : cases) {
        SCOPED_TRACE(std::string(c.criteria ? c.criteria : "null") + (c.request ? " bytes" : ""));
        titles want = c.order;
        want.insert(want.begin(), "zz folder");
        EXPECT_EQ(want, sorted(c.criteria, c.type, c.request));
    }
}

TEST_F(DbSort, ShuffleIsAPermutationThatRepeats)
{
    for (int i = 0; i < 40; i++)
        track({{DBK_TITLE, ("t" + std::to_string(i)).c_str()}});
    titles first = sorted("Philips:shuffle");
    EXPECT_EQ(first, sorted("Philips:shuffle"));
    EXPECT_EQ(40u, std::set<std::string>(first.begin(), first.end()).size());
}

// Titles that share long prefixes (beyond the 16 positions a sort keeps of
// each), end inside them, fold alike or hold bytes that fold to negative
// characters, shuffled: every sort gives the order of a stable sort by the
// plain comparison, equal titles keep their order in the list (not in
// memory), and the "All" title goes first whatever its letters.
TEST_F(DbSort, LargeListsOrderLikeAStableSortByThePlainComparison)
{
    const char* stems[] = {"Song 0000000000000", "song 00000000000000", "Song 00", "S", "", "\xC3\x84rger ist gut",
                           "\xC3\xA4rger ist gut", "\xC3\x85sa", "Ar", "a\x80\x80", "\x80", "\xFF\xFE", "Zed",
                           "zed \xC3\xA9t\xC3\xA9", "Picture 00000000001", "\xC3\xA4\x80", "A\x80", "A"};
    std::vector<std::string> texts;
    for (int i = 0; i < 6000; i++) {
        std::string t = stems[size_t(i) % std::size(stems)];
        t += i % 7 ? std::to_string(i % 501) : "";
        texts.push_back(i % 11 ? t : t + "\xC3\xB1\x80");
    }
    std::shuffle(texts.begin(), texts.end(), std::mt19937(7));
    for (const std::string& t : texts)
        track({{DBK_TITLE, t.c_str()}});
    upnp_ini_set(UPNP_OPT_ALLNAME, "Zed");
    std::vector<db_object*> input(size_t(db_container_child_count(db_all_music)));
    db_container_children(db_all_music, input.data(), int32_t(input.size()));
    const std::vector<db_object*> stored = input;
    std::shuffle(input.begin(), input.end(), std::mt19937(11));
    db_set_client_flag_probe(db_test_probe_flags);
    auto stable = [](std::vector<db_object*> want) {
        // Titles equal to the "All" folder's keep their order among themselves.
        std::stable_sort(want.begin(), want.end(), [](db_object* a, db_object* b) {
            return (strcmp(db_object_get_str(a, DBK_TITLE), "Zed") || strcmp(db_object_get_str(b, DBK_TITLE), "Zed"))
                   && db_sort_compare(&a, &b) < 0;
        });
        return want;
    };
    const sort_case cases[] = {{"+dc:title", 0, nullptr, {}}, {"-dc:title", 0, nullptr, {}},
                               {"+dc:title", 0, db_client, {}}, {"+upnp:genre,-dc:title", 0, nullptr, {}}};
    for (const sort_case& c : cases) {
        SCOPED_TRACE(std::string(c.criteria) + (c.request ? " bytes" : ""));
        db_sort_prepare(c.criteria, DB_OBJ_CONTAINER, c.request);
        std::vector<db_object*> got = input;
        db_sort_objects(got.data(), int32_t(got.size()));
        EXPECT_TRUE(got == stable(input));
    }
    db_sort_prepare("+dc:title", DB_OBJ_CONTAINER, nullptr);
    int64_t used = db_object_get_used_mem();
    db_container_sort(db_all_music);
    std::vector<db_object*> got(input.size());
    db_container_children(db_all_music, got.data(), int32_t(got.size()));
    upnp_ini_set(UPNP_OPT_ALLNAME, "");
    EXPECT_TRUE(got == stable(stored));
    EXPECT_EQ("Zed", std::string(db_object_get_str(got[0], DBK_TITLE)));
    for (size_t i = 1; i < got.size(); i++) {
        const char* a = db_object_get_str(got[i - 1], DBK_TITLE);
        if (strcmp(a, "Zed")) {
            ASSERT_LE(db_compare_text(a, db_object_get_str(got[i], DBK_TITLE)), 0) << i;
        }
    }
    EXPECT_EQ('1', db_object_get_char(db_all_music, DBK_SORTED));
    EXPECT_EQ(used, db_object_get_used_mem());
    EXPECT_EQ(got[7], db_get_pItem_by_id(got[7]->id));
}
