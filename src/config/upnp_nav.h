// upnp_nav.h: the navigation presets. Turns the language tables and the
// option "autotree" into the names of the fixed folders and the node
// definitions the tree builder reads. Runs on the thread that changed
// "language" or "autotree", as unguarded as every option write.
#pragma once

// Renames the fixed folders to the present language and, unless autotree
// is 0, replaces all node options by the preset that autotree names.
void upnp_nav_options_rebuild();
