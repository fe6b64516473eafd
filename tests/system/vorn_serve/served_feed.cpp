#include "tests/system/vorn_serve/served_feed.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>

namespace serve_test {

namespace {

std::string take(int from) {
    char bytes[65536];
    const ssize_t got = ::recv(from, bytes, sizeof(bytes), 0);
    return got > 0 ? std::string(bytes, static_cast<std::size_t>(got)) : std::string();
}

} // namespace

Client::Client(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("cannot connect to the server");
    }
}

Client::~Client() {
    if (socket_ >= 0) {
        ::close(socket_);
    }
}

bool Client::send(const std::string& bytes) const {
    return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

std::string Client::read_some() const {
    return take(socket_);
}

std::string Client::read_all() const {
    std::string all;
    for (std::string some = read_some(); !some.empty(); some = read_some()) {
        all += some;
    }
    return all;
}

std::string Client::read_until(const std::string& text) const {
    std::string all;
    while (all.find(text) == std::string::npos) {
        const std::string some = read_some();
        if (some.empty()) {
            break;
        }
        all += some;
    }
    return all;
}

void Client::shut_writing() const {
    ::shutdown(socket_, SHUT_WR);
}

ServedFeed::ServedFeed(const std::vector<std::string>& more) : bus_(name_) {
    bus_.go_live();
    bus_.writer().publish(record_of("cu2603", 100, 5), 7);
    std::filesystem::create_directory(directory_.path() / "web");
    directory_.write("web/index.html", "<!doctype html><title>page</title>");
    directory_.write("web/app.js", "export {};");
    directory_.write("secret.html", "secret");
    std::filesystem::create_symlink("../secret.html", directory_.path() / "web/link.html");

    std::vector<std::string> words = {VORN_PROGRAM, "serve", "--bus",
                                      name_.name(), "--web", directory_.path() / "web"};
    words.insert(words.end(), more.begin(), more.end());
    if (std::find(words.begin(), words.end(), "--listen") == words.end()) {
        words.insert(words.end(), {"--listen", "127.0.0.1:0"});
    }
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(ends[1], STDERR_FILENO);
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    ::close(ends[1]);
    read_port(ends[0]);
    while (status_of("/api/instruments/cu2603") == 404 ||
           status_of("/healthz") == 503) { // it has not read the bus yet
        bus_.go_live();
    }
}

ServedFeed::~ServedFeed() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

// From the line that says where the page is. The pipe stays open until then only: what the server
// writes to nobody is not its affair.
void ServedFeed::read_port(int from) {
    std::string text;
    char byte = 0;
    const std::string before = "http://127.0.0.1:";
    while (::read(from, &byte, 1) == 1) {
        text += byte;
        const std::size_t at = text.find(before);
        if (byte == '/' && at != std::string::npos && text.size() > at + before.size()) {
            port_ = std::atoi(text.c_str() + at + before.size());
            break;
        }
    }
    ::close(from);
    if (port_ == 0) {
        throw std::runtime_error("the server did not begin: " + text);
    }
}

std::string ServedFeed::get(const std::string& target, const std::string& headers) const {
    const Client client(port_);
    client.send("GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
                headers + "\r\n");
    return client.read_all();
}

int ServedFeed::status_of(const std::string& target, const std::string& headers) const {
    return status_of_answer(get(target, headers));
}

int ServedFeed::stop() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int status_of_answer(const std::string& answer) {
    return answer.starts_with("HTTP/1.1 ") ? std::atoi(answer.c_str() + 9) : 0;
}

std::string body_of(const std::string& answer) {
    const std::size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

} // namespace serve_test
