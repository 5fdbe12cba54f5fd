/// The databases the metadata store tests run on, each behind the same few calls: a store
/// on a fresh database, raw SQL on it (to damage rows as a disk or a hand would), and what
/// each engine must refuse.
#ifndef VEXO_TESTS_SERVICE_METADATA_STORE_ENGINES_H
#define VEXO_TESTS_SERVICE_METADATA_STORE_ENGINES_H

#include <memory>
#include <ostream>
#include <string>

#include "service/store/metadata_store.h"

namespace service_test {

enum class Engine { kSqlite, kPostgres };

std::string engine_name(Engine engine);
/// How GoogleTest names a parameter in its messages.
inline void PrintTo(Engine engine, std::ostream *out) {
    *out << engine_name(engine);
}

class StoreEngine {
  public:
    virtual ~StoreEngine() = default;
    /// False when this machine cannot run the engine at all (the test is skipped then).
    virtual bool installed() const { return true; }
    /// Why the fresh database could not be made; empty when it is there.
    virtual std::string why_not() const { return ""; }
    /// A store on this test's database; read_only where the engine has such a mode.
    virtual std::unique_ptr<vexo_cloud::MetadataStore> open(bool read_only) = 0;
    /// Runs SQL on the database outside any store; a failure fails the test.
    virtual void exec(const std::string &sql) = 0;
    /// SQL that marks the database as one of a schema newer than the program's.
    virtual std::string newer_schema_sql() const = 0;
    /// Opens a database that is not there: must throw StoreError.
    virtual std::unique_ptr<vexo_cloud::MetadataStore> open_missing() = 0;
};

/// engine on a fresh database (SQLite: a file in dir).
std::unique_ptr<StoreEngine> make_engine(Engine engine, const std::string &dir);

} // namespace service_test

#endif
