#pragma once

// `vorn serve` as a child of the test, on a port of its own, over a bus that the test writes; and
// the sockets of its clients.

#include "tests/support/temp_dir.h"
#include "tests/unit/serve/written_bus.h"

#include <chrono>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace serve_test {

// A connected socket. What is read has no time limit but that of the test program.
class Client {
public:
    explicit Client(int port);
    ~Client();
    Client(Client&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    Client& operator=(Client&&) = delete;

    // False: the server has closed the connection.
    bool send(const std::string& bytes) const;
    std::string read_some() const; // empty: the end
    std::string read_all() const;
    std::string read_until(const std::string& text) const; // or the end
    void shut_writing() const;

private:
    int socket_;
};

// `vorn serve` with a folder for its page: index.html and app.js.
class ServedFeed {
public:
    explicit ServedFeed(const std::vector<std::string>& more = {});
    ~ServedFeed(); // ends the program if stop() did not
    ServedFeed(const ServedFeed&) = delete;
    ServedFeed& operator=(const ServedFeed&) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    WrittenBus& bus() { return bus_; }
    const support::TempDir& directory() const { return directory_; }

    // One request on a connection of its own; the whole answer.
    std::string get(const std::string& target, const std::string& headers = "") const;
    int status_of(const std::string& target, const std::string& headers = "") const;
    // SIGTERM; returns the exit status, -1 when a signal ended it.
    int stop();

private:
    void read_port(int from);

    BusName name_;
    support::TempDir directory_;
    WrittenBus bus_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// "HTTP/1.1 404 Not Found..." as 404; 0 for anything else.
int status_of_answer(const std::string& answer);
std::string body_of(const std::string& answer);

} // namespace serve_test
