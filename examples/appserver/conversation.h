#pragma once

// conversation.h: how a process of the application server is spoken to: a command a line on standard input;
// on standard output the lines of its answer, and then "ok" or "failed: " and the reason.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace appserver {

using Words = std::vector<std::string>;

class Conversation {
  public:
    /// Adds a command. `usage` is its name and one word for each argument, for example "get KEY NAME". `run`
    /// receives exactly that many arguments and prints its answer; it fails by throwing a `std::exception`.
    void add(std::string usage, std::function<void(const Words& arguments)> run);

    /// Says that the process is ready, then answers the lines of standard input until "quit" or their end.
    void hold();
    /// Answers one command. Returns whether it went well.
    bool answer(const Words& command);

  private:
    struct Command {
        std::string usage;
        Words form;  // `usage` in words
        std::function<void(const Words&)> run;
    };
    void run(const Words& command) const;

    std::vector<Command> commands_;
};

/// The blank-separated words of a line.
Words wordsOf(const std::string& line);

}  // namespace appserver
