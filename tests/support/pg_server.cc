// The tests' PostgreSQL server, driven by scripts/pg.sh.
#include "pg_server.h"

#include <arpa/inet.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace vexo_test {

namespace {

uint16_t free_loopback_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

} // namespace

bool PgServer::installed() {
    return ::access("/usr/lib/postgresql/15/bin/initdb", X_OK) == 0;
}

PgServer::PgServer() : port_(free_loopback_port()) {
    // The server's user must reach the directory: under the temporary directory itself, never
    // inside another test's directory.
    std::string pattern = (std::filesystem::temp_directory_path() / "vexo-pg-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + pattern + " failed");
    }
    dir_ = pattern;
}

PgServer::~PgServer() {
    if (running_) {
        stop();
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

bool PgServer::script(const std::string &args) {
    const std::string command = std::string(VEXO_PG_SCRIPT) + " " + args + " 2>&1";
    output_.clear();
    FILE *pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        output_ = "cannot run " + command;
        return false;
    }
    char buffer[512];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        output_.append(buffer, n);
    }
    const int status = ::pclose(pipe);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool PgServer::start() {
    running_ = script("start " + dir_ + " " + std::to_string(port_));
    return running_;
}

bool PgServer::stop() {
    const bool stopped = script("stop " + dir_);
    running_ = !stopped;
    return stopped;
}

std::string PgServer::url(const std::string &database) const {
    return "postgresql://postgres@127.0.0.1:" + std::to_string(port_) + "/" + database;
}

std::string PgServer::new_database() {
    const std::string name = "test" + std::to_string(++databases_);
    output_ = exec(url(), "CREATE DATABASE " + name);
    return output_.empty() ? url(name) : std::string();
}

std::string PgServer::exec(const std::string &url, const std::string &sql) {
    PGconn *conn = PQconnectdb(url.c_str());
    std::string error;
    if (PQstatus(conn) != CONNECTION_OK) {
        error = PQerrorMessage(conn);
    } else {
        PGresult *result = PQexec(conn, sql.c_str());
        const ExecStatusType status = PQresultStatus(result);
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            error = std::string(PQerrorMessage(conn)) + " in: " + sql;
        }
        PQclear(result);
    }
    PQfinish(conn);
    return error;
}

PgServer *shared_pg_server(std::string *why) {
    static std::unique_ptr<PgServer> server;
    static std::string failure;
    if (!server && failure.empty()) {
        auto started = std::make_unique<PgServer>();
        if (started->start()) {
            server = std::move(started);
        } else {
            failure = "the test PostgreSQL server did not start: " + started->output();
        }
    }
    *why = failure;
    return server.get();
}

} // namespace vexo_test
