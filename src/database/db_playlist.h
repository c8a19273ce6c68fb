// db_playlist.h: the lists of the content tree: containers of numbered
// references to items that live elsewhere. Today the two lists the store
// keeps by itself, "Most Played" and "Last Played", which follow each
// stream of a track and each track that enters the store.
#pragma once

struct db_object;

// Both run under db_lock and do nothing while their list's slot is empty.
// The reference's number is the play count, or the seconds between the
// store's creation and the last play.
void db_most_played_update(db_object* item);
void db_last_played_update(db_object* item);

// Forgets the cached list length, at each db_create.
void db_played_reset();
