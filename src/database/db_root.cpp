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
// A sequence of 0 takes the type's counter. A row with nodes stands for one
// container per node option that has a first element, which is its title,
// at consecutive sequence numbers.
struct root_row {
    db_object** slot;
    db_object** also;
    db_object** parent;
    int32_t option;
    const char* fallback;
    int32_t type;
    uint32_t sequence;
    const int32_t* nodes = nullptr;
    uint32_t node_count = 0;
};

static const int32_t root_music_nodes[] = {
    UPNP_OPT_MUSICNODE1, UPNP_OPT_MUSICNODE2, UPNP_OPT_MUSICNODE3, UPNP_OPT_MUSICNODE4, UPNP_OPT_MUSICNODE5,
    UPNP_OPT_MUSICNODE6, UPNP_OPT_MUSICNODE7, UPNP_OPT_MUSICNODE8, UPNP_OPT_MUSICNODE9, UPNP_OPT_MUSICNODE10,
};
static const int32_t root_picture_nodes[] = {
    UPNP_OPT_PICTURENODE1, UPNP_OPT_PICTURENODE2, UPNP_OPT_PICTURENODE3, UPNP_OPT_PICTURENODE4, UPNP_OPT_PICTURENODE5,
};
static const int32_t root_video_nodes[] = {
    UPNP_OPT_VIDEONODE1, UPNP_OPT_VIDEONODE2, UPNP_OPT_VIDEONODE3, UPNP_OPT_VIDEONODE4, UPNP_OPT_VIDEONODE5,
};

static const root_row root_full[] = {
    {&db_music_root, nullptr, &db_root, UPNP_OPT_ROOTMUSIC, "Music", 0, 1},
    {&db_playlist_root, nullptr, &db_music_root, UPNP_OPT_PLAYLISTS, "Playlist", 0, 11},
    {&db_most_played, nullptr, &db_playlist_root, UPNP_OPT_PLAYLISTMOSTPLAYED, "Most Played", 1, 0},
    {&db_last_played, nullptr, &db_playlist_root, UPNP_OPT_PLAYLISTLASTPLAYED, "Last Played", 1, 0},
    {&db_all_music, nullptr, &db_music_root, UPNP_OPT_ALLTRACKS, "All Music", 2, 10},
    {nullptr, nullptr, &db_music_root, 0, nullptr, 0, 12, root_music_nodes, 10},
    {&db_picture_root, nullptr, &db_root, UPNP_OPT_ROOTPICTURE, "Picture", 0, 2},
    {&db_all_pictures, nullptr, &db_picture_root, UPNP_OPT_ALLPICTURES, "All Picture", 7, 30},
    {nullptr, nullptr, &db_picture_root, 0, nullptr, 7, 31, root_picture_nodes, 5},
    {&db_video_root, nullptr, &db_root, UPNP_OPT_ROOTVIDEO, "Video", 0, 3},
    {&db_all_video, nullptr, &db_video_root, UPNP_OPT_ALLVIDEOS, "All Video", 4, 50},
    {nullptr, nullptr, &db_video_root, 0, nullptr, 0, 51, root_video_nodes, 5},
};

static const root_row root_flat[] = {
    {&db_music_root, &db_all_music, &db_root, UPNP_OPT_ROOTMUSIC, "Music", 2, 10},
    {&db_picture_root, &db_all_pictures, &db_root, UPNP_OPT_ROOTPICTURE, "Picture", 7, 30},
    {&db_video_root, &db_all_video, &db_root, UPNP_OPT_ROOTVIDEO, "Video", 4, 50},
};

static const root_row root_document = {&db_document_root, &db_all_documents, &db_root, UPNP_OPT_ALLDOCUMENT,
                                       "Document", 5, 57};

static db_object* root_container(db_object* parent, int32_t type, uint32_t sequence, const char* title)
{
    uint32_t id = sequence ? uint32_t(type) << DB_ID_TYPE_SHIFT | sequence : db_next_id(type);
    db_object* c = parent ? db_container_new(id, title, 1) : nullptr;
    if (c)
        db_container_add_child(parent, c);
    return c;
}

static void root_add(const root_row& row)
{
    for (uint32_t i = 0; i < row.node_count; i++) {
        const char* title = upnp_ini_get_item(row.nodes[i], 0);
        if (title && *title)
            root_container(*row.parent, row.type, row.sequence + i, title);
    }
    if (row.nodes)
        return;
    bool played = row.slot == &db_most_played || row.slot == &db_last_played;
    if (played && upnp_ini_get_int(UPNP_OPT_PLAYLISTNUMENTRIES) == 0)
        return;
    const char* title = upnp_ini_get_string(row.option);
    db_object* c = root_container(*row.parent, row.type, row.sequence, title && *title ? title : row.fallback);
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
