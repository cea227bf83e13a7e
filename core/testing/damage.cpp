#include "core/testing/damage.h"

#include <sqlite3.h>

#include <cstdint>
#include <fstream>
#include <vector>

namespace orvel::testing {
namespace {

uint32_t be32(const std::vector<uint8_t>& p, size_t at) {
  return uint32_t{p[at]} << 24 | uint32_t{p[at + 1]} << 16 | uint32_t{p[at + 2]} << 8 |
         uint32_t{p[at + 3]};
}

std::vector<uint8_t> readPage(std::fstream& file, int64_t pageSize, uint32_t page) {
  std::vector<uint8_t> bytes(static_cast<size_t>(pageSize));
  file.seekg(static_cast<std::streamoff>((page - 1) * pageSize));
  file.read(reinterpret_cast<char*>(bytes.data()), pageSize);
  return bytes;
}

}  // namespace

bool damageLastPageOf(const std::string& dbPath, const std::string& table) {
  int64_t pageSize = 0;
  uint32_t root = 0;
  {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
      sqlite3_close(db);
      return false;
    }
    sqlite3_stmt* st = nullptr;
    const std::string sql =
        "SELECT rootpage, (SELECT page_size FROM pragma_page_size) FROM "
        "sqlite_master WHERE type = 'table' AND name = '" +
        table + "'";
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) == SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW) {
      root = static_cast<uint32_t>(sqlite3_column_int64(st, 0));
      pageSize = sqlite3_column_int64(st, 1);
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
  }
  if (root == 0 || pageSize == 0) return false;
  std::fstream file(dbPath, std::ios::in | std::ios::out | std::ios::binary);
  // Interior table pages (type 5) keep their right-most child at bytes 8–11;
  // follow them down to the last leaf.
  uint32_t page = root;
  for (int depth = 0; depth < 16; ++depth) {
    const auto bytes = readPage(file, pageSize, page);
    const size_t header = page == 1 ? 100 : 0;
    if (bytes[header] != 0x05) break;
    page = be32(bytes, header + 8);
  }
  if (page == root) return false;  // a one-page table has no leaf to spare
  const std::vector<char> junk(static_cast<size_t>(pageSize), '\x5a');
  file.seekp(static_cast<std::streamoff>((page - 1) * pageSize));
  file.write(junk.data(), pageSize);
  return static_cast<bool>(file);
}

}  // namespace orvel::testing
