// The same table in SQLite, which is configured not to wait for the disk, like the library: a
// handle that stays open, with its statements prepared, and one that is opened for each call; with
// a write-ahead log and with a rollback journal.

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>

#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

namespace {

class CStatement {
public:
    CStatement(sqlite3* database, const char* sql) {
        if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(database));
    }
    ~CStatement() { sqlite3_finalize(statement); }
    CStatement(const CStatement&) = delete;
    CStatement& operator=(const CStatement&) = delete;

    // The caller keeps `value` alive until the statement was executed.
    void Bind(int index, const std::string& value) const {
        sqlite3_bind_text(statement, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_STATIC);
    }
    void Bind(int index, sqlite3_int64 value) const { sqlite3_bind_int64(statement, index, value); }

    // True when there is a row, false at the end, where the statement is reset for the next use.
    bool Step() const {
        const int result = sqlite3_step(statement);
        if (result == SQLITE_ROW)
            return true;
        if (result != SQLITE_DONE)
            throw std::runtime_error(sqlite3_errstr(result));
        sqlite3_reset(statement);
        return false;
    }
    void Execute() const {
        while (Step()) {
        }
    }

    sqlite3_int64 Number(int column) const { return sqlite3_column_int64(statement, column); }
    void String(int column, std::string& value) const {
        value.assign(reinterpret_cast<const char*>(sqlite3_column_text(statement, column)),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    }

private:
    sqlite3_stmt* statement = nullptr;
};

class CDatabase {
public:
    explicit CDatabase(const std::string& path) {
        const int result = sqlite3_open(path.c_str(), &database);
        if (result != SQLITE_OK)
            throw std::runtime_error(sqlite3_errstr(result));
    }
    ~CDatabase() { sqlite3_close(database); }
    CDatabase(const CDatabase&) = delete;
    CDatabase& operator=(const CDatabase&) = delete;

    void Execute(const char* sql) const { CStatement(database, sql).Execute(); }
    // A property of the connection, not of the file.
    void DoNotSync() const { Execute("PRAGMA synchronous = OFF"); }
    sqlite3* Handle() const { return database; }

private:
    sqlite3* database = nullptr;
};

}  // namespace

static constexpr char cLookUp[] = "SELECT next FROM tasks WHERE name = ?";
static constexpr char cChange[] = "UPDATE tasks SET paused = 1 - paused WHERE name = ?";
static constexpr char cReadAll[] =
    "SELECT name, next, last, period, program, parameters, paused FROM tasks ORDER BY rowid";

// The database of that many tasks in the working directory, created on first use.
static std::string DatabaseOf(const std::string& journal, std::size_t tasks) {
    const std::string path = "tasks-" + journal + '-' + std::to_string(tasks) + ".db";
    if (std::filesystem::exists(path))
        return path;
    const CDatabase database(path);
    database.DoNotSync();
    database.Execute(("PRAGMA journal_mode = " + journal).c_str());
    database.Execute(
        "CREATE TABLE tasks (name TEXT PRIMARY KEY, next INTEGER, last INTEGER, period INTEGER, "
        "program TEXT, parameters TEXT, paused INTEGER)");
    database.Execute("BEGIN");
    const CStatement insert(database.Handle(), "INSERT INTO tasks VALUES (?, ?, ?, ?, ?, ?, ?)");
    for (std::size_t index = 0; index < tasks; ++index) {
        TTask task;
        Fill(task, index);
        insert.Bind(1, task.name);
        insert.Bind(2, task.nextExecution);
        insert.Bind(3, task.lastExecuted);
        insert.Bind(4, task.period);
        insert.Bind(5, task.program);
        insert.Bind(6, task.parameters);
        insert.Bind(7, task.paused);
        insert.Execute();
    }
    database.Execute("COMMIT");
    return path;
}

static long LookUp(const CStatement& statement, const std::string& name) {
    statement.Bind(1, name);
    long next = 0;
    while (statement.Step())
        next = statement.Number(0);
    return next;
}

static int Change(const CDatabase& database, const CStatement& statement, const std::string& name) {
    statement.Bind(1, name);
    statement.Execute();
    return sqlite3_changes(database.Handle());
}

static std::size_t ReadAll(const CStatement& statement, TTaskList& list) {
    ClearTasks(list);
    while (statement.Step()) {
        auto* const task = new TTask;
        statement.String(0, task->name);
        task->nextExecution = statement.Number(1);
        task->lastExecuted = statement.Number(2);
        task->period = static_cast<std::uint32_t>(statement.Number(3));
        statement.String(4, task->program);
        statement.String(5, task->parameters);
        task->paused = static_cast<std::int32_t>(statement.Number(6));
        list.push_back(task);
    }
    return list.size();
}

static TTableBenchmark LookUpKept(const std::string& journal) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const CDatabase database(DatabaseOf(journal, tasks));
        const CStatement statement(database.Handle(), cLookUp);
        const std::string name = NameOf(tasks - 1);
        long next = 0;
        for (auto _ : state)
            next = LookUp(statement, name);
        Expect(state, next == NextExecutionOf(tasks - 1), "the task was not found");
    };
}

static TTableBenchmark LookUpOpened(const std::string& journal) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const std::string path = DatabaseOf(journal, tasks);
        const std::string name = NameOf(tasks - 1);
        long next = 0;
        for (auto _ : state) {
            const CDatabase database(path);
            const CStatement statement(database.Handle(), cLookUp);
            next = LookUp(statement, name);
        }
        Expect(state, next == NextExecutionOf(tasks - 1), "the task was not found");
    };
}

static TTableBenchmark ChangeKept(const std::string& journal) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const CDatabase database(DatabaseOf(journal, tasks));
        database.DoNotSync();
        const CStatement statement(database.Handle(), cChange);
        const std::string name = NameOf(tasks - 1);
        int changes = 0;
        for (auto _ : state)
            changes = Change(database, statement, name);
        Expect(state, changes == 1, "the task was not changed");
    };
}

static TTableBenchmark ChangeOpened(const std::string& journal) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const std::string path = DatabaseOf(journal, tasks);
        const std::string name = NameOf(tasks - 1);
        int changes = 0;
        for (auto _ : state) {
            const CDatabase database(path);
            database.DoNotSync();
            const CStatement statement(database.Handle(), cChange);
            changes = Change(database, statement, name);
        }
        Expect(state, changes == 1, "the task was not changed");
    };
}

static TTableBenchmark ReadAllKept(const std::string& journal) {
    return [=](benchmark::State& state, std::size_t tasks) {
        const CDatabase database(DatabaseOf(journal, tasks));
        const CStatement statement(database.Handle(), cReadAll);
        TTaskList list;
        for (auto _ : state)
            ReadAll(statement, list);
        Expect(state, list.size() == tasks && list.back()->name == NameOf(tasks - 1),
               "the list is not the table");
        ClearTasks(list);
    };
}

static bool RegisterWith(const std::string& journal, const std::string& way) {
    return RegisterTableBenchmark("query", "sqlite-kept-" + way, LookUpKept(journal),
                                  TableSizesAnd(500)) &&
           RegisterTableBenchmark("query", "sqlite-opened-" + way, LookUpOpened(journal),
                                  TableSizesAnd(500)) &&
           RegisterTableBenchmark("change", "sqlite-kept-" + way, ChangeKept(journal),
                                  TableSizesAnd(400)) &&
           RegisterTableBenchmark("change", "sqlite-opened-" + way, ChangeOpened(journal),
                                  TableSizesAnd(400)) &&
           RegisterTableBenchmark("load", "sqlite-kept-" + way, ReadAllKept(journal));
}

static const bool gRegistered = RegisterWith("WAL", "wal") && RegisterWith("DELETE", "rollback");
