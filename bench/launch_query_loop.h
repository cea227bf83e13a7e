// The bare cost of reading the library: the launch query stepped to its end
// with every column read, nothing kept. Loading and publishing are measured
// against it.
#pragma once

#include <sqlite3.h>

#include <cstdint>

#include "core/store/orvel_db.h"

namespace orvel::bench {

// A sum of what was read, so the compiler cannot drop the reads.
inline int64_t stepLaunchQuery(OrvelDB& db) {
  Statement st = db.prepare(TrackStore::launchQuery());
  sqlite3_stmt* s = st.get();
  const int columns = sqlite3_column_count(s);
  int64_t sum = 0;
  while (st.step()) {
    for (int c = 0; c < columns; ++c) {
      switch (sqlite3_column_type(s, c)) {
        case SQLITE_INTEGER:
          sum += sqlite3_column_int64(s, c);
          break;
        case SQLITE_FLOAT:
          sum += static_cast<int64_t>(sqlite3_column_double(s, c));
          break;
        case SQLITE_TEXT:
          sum += reinterpret_cast<const char*>(sqlite3_column_text(s, c))[0];
          sum += sqlite3_column_bytes(s, c);
          break;
        default:
          break;
      }
    }
  }
  return sum;
}

}  // namespace orvel::bench
