// db_root.cpp: the fixed top of the content tree. Its containers have
// constant sequence numbers, so that clients find the same ids in every
// run, and all of them are restricted, which keeps them when folders that
// have become empty are swept.
#include "database/db_tree.h"

#include "config/upnp_ini.h"
#include "database/db_id.h"
#include "database/db_object.h"
#include "runtime/upnp_run.h"

// A row of the top: the slot (and the "All" slot it also fills, if any),
// its parent's slot, the option that may name it, the title without one.
// Rows with a node option exist only when that option has a first element,
// which is their title. A sequence of 0 under a parent takes the type's
// counter.
struct root_row {
    db_object** slot;
    db_object** also;
    db_object** parent;
    int32_t option;
    const char* fallback;
    int32_t type;
    uint32_t sequence;
};

static constexpr int32_t ROOT_NODE = -1;     // the option is a node list

static const root_row root_full[] = {
    {&db_music_root, nullptr, &db_root, UPNP_OPT_ROOTMUSIC, "Music", 0, 1},
    {&db_playlist_root, nullptr, &db_music_root, UPNP_OPT_PLAYLISTS, "Playlist", 0, 11},
    {&db_most_played, nullptr, &db_playlist_root, UPNP_OPT_PLAYLISTMOSTPLAYED, "Most Played", 1, 0},
    {&db_last_played, nullptr, &db_playlist_root, UPNP_OPT_PLAYLISTLASTPLAYED, "Last Played", 1, 0},
    {&db_all_music, nullptr, &db_music_root, UPNP_OPT_ALLTRACKS, "All Music", 2, 10},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE1, nullptr, 0, 12},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE2, nullptr, 0, 13},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE3, nullptr, 0, 14},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE4, nullptr, 0, 15},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE5, nullptr, 0, 16},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE6, nullptr, 0, 17},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE7, nullptr, 0, 18},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE8, nullptr, 0, 19},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE9, nullptr, 0, 20},
    {nullptr, nullptr, &db_music_root, UPNP_OPT_MUSICNODE10, nullptr, 0, 21},
    {&db_picture_root, nullptr, &db_root, UPNP_OPT_ROOTPICTURE, "Picture", 0, 2},
    {&db_all_pictures, nullptr, &db_picture_root, UPNP_OPT_ALLPICTURES, "All Picture", 7, 30},
    {nullptr, nullptr, &db_picture_root, UPNP_OPT_PICTURENODE1, nullptr, 7, 31},
    {nullptr, nullptr, &db_picture_root, UPNP_OPT_PICTURENODE2, nullptr, 7, 32},
    {nullptr, nullptr, &db_picture_root, UPNP_OPT_PICTURENODE3, nullptr, 7, 33},
    {nullptr, nullptr, &db_picture_root, UPNP_OPT_PICTURENODE4, nullptr, 7, 34},
    {nullptr, nullptr, &db_picture_root, UPNP_OPT_PICTURENODE5, nullptr, 7, 35},
    {&db_video_root, nullptr, &db_root, UPNP_OPT_ROOTVIDEO, "Video", 0, 3},
    {&db_all_video, nullptr, &db_video_root, UPNP_OPT_ALLVIDEOS, "All Video", 4, 50},
    {nullptr, nullptr, &db_video_root, UPNP_OPT_VIDEONODE1, nullptr, 0, 51},
    {nullptr, nullptr, &db_video_root, UPNP_OPT_VIDEONODE2, nullptr, 0, 52},
    {nullptr, nullptr, &db_video_root, UPNP_OPT_VIDEONODE3, nullptr, 0, 53},
    {nullptr, nullptr, &db_video_root, UPNP_OPT_VIDEONODE4, nullptr, 0, 54},
    {nullptr, nullptr, &db_video_root, UPNP_OPT_VIDEONODE5, nullptr, 0, 55},
};

static const root_row root_flat[] = {
    {&db_music_root, &db_all_music, &db_root, UPNP_OPT_ROOTMUSIC, "Music", 2, 10},
    {&db_picture_root, &db_all_pictures, &db_root, UPNP_OPT_ROOTPICTURE, "Picture", 7, 30},
    {&db_video_root, &db_all_video, &db_root, UPNP_OPT_ROOTVIDEO, "Video", 4, 50},
};

static const root_row root_document = {&db_document_root, &db_all_documents, &db_root, UPNP_OPT_ALLDOCUMENT,
                                       "Document", 5, 57};

static bool root_is_node(const root_row& row)
{
    return !row.fallback;
}

static void root_add(const root_row& row)
{
    const char* title = root_is_node(row) ? upnp_ini_get_item(row.option, 0) : upnp_ini_get_string(row.option);
    if (root_is_node(row) && (!title || !*title))
        return;
    if (!title || !*title)
        title = row.fallback;
    bool played = row.slot == &db_most_played || row.slot == &db_last_played;
    if (played && upnp_ini_get_int(UPNP_OPT_PLAYLISTNUMENTRIES) == 0)
        return;
    uint32_t id = row.sequence ? uint32_t(row.type) << DB_ID_TYPE_SHIFT | row.sequence : db_next_id(row.type);
    db_object* c = db_container_new(id, title, 1);
    if (!c || !*row.parent)
        return;
    db_container_add_child(*row.parent, c);
    if (row.slot)
        *row.slot = c;
    if (row.also)
        *row.also = c;
}

void db_build_root()
{
    db_lock_guard hold;
    db_root = db_container_new(0, "root", 1);
    if (upnp_switches.tree_flat)
        for (const root_row& row : root_flat)
            root_add(row);
    else
        for (const root_row& row : root_full)
            root_add(row);
    if (upnp_switches.document_root)
        root_add(root_document);
    db_note_change();
}
