/// A cloud data directory as a test compares it before and after a request that must change
/// nothing: every file and directory with the files' contents, except that the service's
/// database files (whose bytes change when SQLite checkpoints or readers come and go) are
/// replaced by the rows of every table, and the lock file is left out.
#ifndef VEXO_TESTS_DATA_SNAPSHOT_H
#define VEXO_TESTS_DATA_SNAPSHOT_H

#include <map>
#include <string>

namespace test_support {

std::map<std::string, std::string> data_snapshot(const std::string &dir);

/// Every row of every table of the SQLite database at path, a line per row, by table.
std::string database_rows(const std::string &path);

} // namespace test_support

#endif
