#pragma once

// Converts a row of `entries` to an EntryView; shared by the Tree_*.cpp files.

#include "standin/store/Tree.h"

#define KZV_ENTRY_COLUMNS                                                                            \
  "e.id, e.parent, e.path_lower, e.path_display, e.folder, e.seq, e.rev, e.size, e.client_modified," \
  " e.server_modified, e.content, c.hash"
#define KZV_ENTRY_TABLES " entries e LEFT JOIN contents c ON c.id = e.content "

namespace kzv::standin {

inline EntryView entryFromRow(const Query& row) {
  EntryView view;
  view.id = row.integer(0);
  view.parent = row.integer(1);
  view.lower = row.text(2);
  view.display = row.text(3);
  view.isFolder = row.integer(4) != 0;
  view.seq = row.integer(5);
  view.rev = row.integer(6);
  view.sizeBytes = row.integer(7);
  view.clientModified = row.integer(8);
  view.serverModified = row.integer(9);
  view.content = row.integer(10);
  view.hash = row.blob(11);
  return view;
}

}  // namespace kzv::standin
