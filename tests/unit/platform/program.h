// Program: one of the tree's programs, run by a test.
#ifndef TESTS_PROGRAM_H
#define TESTS_PROGRAM_H

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "emulator.h"

class Program {
  public:
    // Starts it, under the emulator of a cross build; its standard error goes where its standard
    // output does.
    explicit Program(std::vector<std::string> arguments, const std::string& input = {}) {
        const std::vector<std::string> before = emulator();
        arguments.insert(arguments.begin(), before.begin(), before.end());
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        if (pipe(in.data()) != 0 || pipe(out.data()) != 0)
            throw std::runtime_error{"pipe"};
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            for (const int fd : {in[0], in[1], out[0], out[1]})
                close(fd);
            std::vector<char*> argv;
            for (std::string& argument : arguments)
                argv.push_back(argument.data());
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        output_ = out[0];
        if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size()))
            throw std::runtime_error{"write"};
        close(in[1]);
    }
    ~Program() {
        if (pid_ > 0) {
            kill(SIGKILL);
            exit_status();
        }
        close(output_);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void kill(int signal) const { ::kill(pid_, signal); }

    // Waits for its end; 128 and the signal for one that was killed.
    int exit_status() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // The next line without its line feed; empty at the end of the output and when none comes.
    std::string line() {
        std::string result;
        char byte = 0;
        pollfd entry{output_, POLLIN, 0};
        while (poll(&entry, 1, 20000) == 1 && read(output_, &byte, 1) == 1 && byte != '\n')
            result += byte;
        return result;
    }

    // All that is still to come.
    std::string rest() {
        std::string result;
        std::array<char, 4096> piece;
        for (ssize_t count; (count = read(output_, piece.data(), piece.size())) > 0;)
            result.append(piece.data(), static_cast<std::size_t>(count));
        return result;
    }

  private:
    pid_t pid_ = -1;
    int output_ = -1;
};

#endif
