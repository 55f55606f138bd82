#include "database.h"

#include <sqlite3.h>
#include <sys/stat.h>

namespace nightly {

namespace {

void Require(bool succeeded, const Database& database) {
    if (!succeeded)
        throw DatabaseFailure(std::string("history: ") + sqlite3_errmsg(database.Get()));
}

} // namespace

void Database::Closer::operator()(sqlite3* handle) const {
    sqlite3_close(handle);
}

Database::Database(const std::string& path) {
    sqlite3* handle = nullptr;
    const mode_t mask = ::umask(077);
    const int opened = sqlite3_open(path.c_str(), &handle);
    ::umask(mask);
    handle_.reset(handle);
    if (opened != SQLITE_OK)
        throw DatabaseFailure(path + ": " + (handle == nullptr ? "no memory" : sqlite3_errmsg(handle)));
    sqlite3_busy_timeout(handle, 10000);
}

void Database::Execute(const char* sql) {
    Require(sqlite3_exec(Get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK, *this);
}

Transaction::~Transaction() {
    if (open_)
        sqlite3_exec(database_.Get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::Commit() {
    database_.Execute("COMMIT");
    open_ = false;
}

void Statement::Closer::operator()(sqlite3_stmt* handle) const {
    sqlite3_finalize(handle);
}

Statement::Statement(const Database& database, const char* sql) : database_(database) {
    sqlite3_stmt* handle = nullptr;
    const int prepared = sqlite3_prepare_v2(database.Get(), sql, -1, &handle, nullptr);
    handle_.reset(handle);
    Require(prepared == SQLITE_OK, database);
}

Statement& Statement::Bind(int parameter, std::int64_t number) {
    Require(sqlite3_bind_int64(handle_.get(), parameter + 1, number) == SQLITE_OK, database_);
    return *this;
}

Statement& Statement::Bind(int parameter, std::string_view text) {
    Require(sqlite3_bind_blob64(handle_.get(), parameter + 1, text.data(), text.size(), SQLITE_TRANSIENT) == SQLITE_OK,
            database_);
    return *this;
}

bool Statement::Step() {
    const int result = sqlite3_step(handle_.get());
    if (result == SQLITE_ROW)
        return true;
    // A reset repeats the error of a failed step.
    Require(sqlite3_reset(handle_.get()) == SQLITE_OK && result == SQLITE_DONE, database_);
    return false;
}

void Statement::Run() {
    while (Step()) {
    }
}

std::int64_t Statement::Number(int column) const {
    return sqlite3_column_int64(handle_.get(), column);
}

std::string Statement::Text(int column) const {
    const void* const bytes = sqlite3_column_blob(handle_.get(), column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(handle_.get(), column));
    return bytes == nullptr ? "" : std::string(static_cast<const char*>(bytes), size);
}

} // namespace nightly
