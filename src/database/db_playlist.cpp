// db_playlist.cpp: the played lists. Each is a container of type 21
// references whose number ranks the item: its play count in "Most
// Played", the seconds from the store's creation to its last play in
// "Last Played". A threshold per list (db_most_played_min,
// db_last_played_min, -1 after db_create) lets most updates return before
// walking the list once it is full.
//
// Lock: db_lock, held by every caller (the store while it adds a track,
// the stream lookup when a track is played).
#include "database/db_playlist.h"

#include "config/upnp_ini.h"
#include "database/db_object.h"

static int32_t played_max_length = -1;              // db_lock: option playlistnumentries, fetched once

void db_played_reset()
{
    played_max_length = -1;
}

static int32_t played_length()
{
    if (played_max_length < 0)
        played_max_length = upnp_ini_get_int(UPNP_OPT_PLAYLISTNUMENTRIES);
    return played_max_length;
}

// The reference with the lowest number, and whether one already stands for
// the item (then that one is returned in *same).
static db_object* played_lowest(db_object* list, db_object* item, db_object** same)
{
    db_object* lowest = nullptr;
    *same = nullptr;
    for (int32_t i = 0; i < db_container_child_count(list); i++) {
        db_object* ref = db_container_child(list, i);
        if (db_object_target(ref) == item)
            *same = ref;
        if (!lowest || db_object_get_int(ref, DBK_TRACK) < db_object_get_int(lowest, DBK_TRACK))
            lowest = ref;
    }
    return lowest;
}

static void played_drop(db_object* list, db_object* ref)
{
    db_container_remove_child(list, ref);
    db_object_free(ref);
}

static void played_add(db_object* list, db_object* item, int32_t number)
{
    if (db_object* ref = db_ref_new(DB_OBJ_REF_TRACK, item, number))
        if (!db_container_add_child(list, ref))
            db_object_free(ref);
}

// The two lists differ only in the threshold a full list leaves behind:
// the lowest number in "Most Played", the value just offered in "Last
// Played".
static void played_update(db_object* list, int32_t* threshold, db_object* item, int32_t value,
                          bool threshold_is_value)
{
    db_object* same;
    db_object* lowest = played_lowest(list, item, &same);
    if (same) {
        db_object_set_int(same, DBK_TRACK, value);
        db_container_mark_changed(list);
        return;
    }
    if (db_container_child_count(list) >= played_length()) {
        int32_t lowest_number = db_object_get_int(lowest, DBK_TRACK);
        *threshold = threshold_is_value ? value : lowest_number;
        if (value <= lowest_number)
            return;
        played_drop(list, lowest);
    }
    played_add(list, item, value);
}

void db_most_played_update(db_object* item)
{
    if (!db_most_played || !item || played_length() == 0)
        return;
    int32_t plays = db_object_get_int(item, DBK_PLAY_COUNT);
    if (plays > db_most_played_min)
        played_update(db_most_played, &db_most_played_min, item, plays, false);
}

// Ranked by seconds since the store was made, cut to the reference's 16-bit
// number: after about nine hours the order no longer holds.
void db_last_played_update(db_object* item)
{
    if (!db_last_played || !item || played_length() == 0)
        return;
    int32_t value = int32_t(db_object_get_int(item, DBK_LAST_PLAYED) - db_get_start_time());
    if (value > db_last_played_min || db_last_played_min == -1)
        played_update(db_last_played, &db_last_played_min, item, value, true);
}
