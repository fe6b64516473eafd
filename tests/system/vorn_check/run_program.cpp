#include "run_program.h"

#include <fcntl.h>
#include <unistd.h>

namespace vorn_check {

support::ChildRun run_program(const std::vector<std::string>& command,
                              const std::filesystem::path& directory,
                              const std::function<void()>& before_exec) {
    return support::run_child(directory, [&] {
        const int nothing = ::open("/dev/null", O_RDONLY);
        ::dup2(nothing, STDIN_FILENO);
        if (before_exec) {
            before_exec();
        }
        std::vector<char*> arguments;
        for (const std::string& argument : command) {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    });
}

} // namespace vorn_check
