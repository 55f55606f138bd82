// SQLite with owners: every failure throws DatabaseFailure.

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "failure.h"

struct sqlite3;
struct sqlite3_stmt;

namespace nightly {

struct DatabaseFailure : Failure {
    using Failure::Failure;
};

class Database {
public:
    explicit Database(const std::string& path); // made when it does not exist, mode 0600
    void Execute(const char* sql);
    sqlite3* Get() const { return handle_.get(); }

private:
    struct Closer {
        void operator()(sqlite3* handle) const;
    };
    std::unique_ptr<sqlite3, Closer> handle_;
};

// Rolled back unless committed. Two programs may enter the same night.
class Transaction {
public:
    explicit Transaction(Database& database) : database_(database) { database_.Execute("BEGIN IMMEDIATE"); }
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

private:
    Database& database_;
    bool open_ = true;
};

// A prepared statement. Parameters and columns count from 0.
class Statement {
public:
    Statement(const Database& database, const char* sql);
    Statement& Bind(int parameter, std::int64_t number);
    Statement& Bind(int parameter, std::string_view text);
    bool Step(); // whether there is a row; at the end the statement starts over
    void Run();  // for statements without rows
    std::int64_t Number(int column) const;
    std::string Text(int column) const;

private:
    struct Closer {
        void operator()(sqlite3_stmt* handle) const;
    };
    const Database& database_;
    std::unique_ptr<sqlite3_stmt, Closer> handle_;
};

} // namespace nightly
