/// Snapshots of a cloud data directory for the tests.
#include "data_snapshot.h"

#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace test_support {
namespace {

namespace fs = std::filesystem;

/// The database, its WAL and shared-memory files and the lock file.
bool is_service_file(const std::string &file_name) {
    return file_name.rfind("vexo-cloud.", 0) == 0;
}

std::vector<std::string> column_texts(sqlite3_stmt *statement) {
    std::vector<std::string> texts;
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, i));
        texts.emplace_back(text == nullptr ? "NULL" : text);
    }
    return texts;
}

} // namespace

std::string database_rows(const std::string &path) {
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        throw std::runtime_error("cannot open " + path);
    }
    std::ostringstream out;
    std::vector<std::string> tables;
    sqlite3_stmt *list = nullptr;
    sqlite3_prepare_v2(db, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", -1,
                       &list, nullptr);
    while (list != nullptr && sqlite3_step(list) == SQLITE_ROW) {
        tables.push_back(column_texts(list)[0]);
    }
    sqlite3_finalize(list);
    for (const std::string &table : tables) {
        sqlite3_stmt *rows = nullptr;
        sqlite3_prepare_v2(db, ("SELECT * FROM \"" + table + "\" ORDER BY rowid").c_str(), -1,
                           &rows, nullptr);
        while (rows != nullptr && sqlite3_step(rows) == SQLITE_ROW) {
            out << table;
            for (const std::string &text : column_texts(rows)) {
                out << " | " << text;
            }
            out << "\n";
        }
        sqlite3_finalize(rows);
    }
    sqlite3_close(db);
    return out.str();
}

std::map<std::string, std::string> data_snapshot(const std::string &dir) {
    std::map<std::string, std::string> entries;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = fs::relative(it->path(), dir).string();
        const std::string file = it->path().filename().string();
        if (it->is_directory()) {
            entries[name] = "<directory>";
        } else if (file == "vexo-cloud.db") {
            entries[name] = database_rows(it->path().string());
        } else if (!is_service_file(file)) {
            std::ifstream in(it->path(), std::ios::binary);
            std::ostringstream content;
            content << in.rdbuf();
            entries[name] = content.str();
        }
    }
    return entries;
}

} // namespace test_support
