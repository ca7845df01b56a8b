// conversation.cpp: reads commands and answers them.

#include "conversation.h"

#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace appserver {

Words wordsOf(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

void Conversation::add(std::string usage, std::function<void(const Words&)> run) {
    Words form = wordsOf(usage);
    commands_.push_back({std::move(usage), std::move(form), std::move(run)});
}

void Conversation::hold() {
    std::puts("ok");
    std::fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
        const Words command = wordsOf(line);
        if (command.empty()) continue;
        if (command.front() == "quit") return;
        answer(command);
    }
}

bool Conversation::answer(const Words& command) {
    std::string failure;
    try {
        run(command);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    if (failure.empty()) {
        std::puts("ok");
    } else {
        std::printf("failed: %s\n", failure.c_str());
    }
    std::fflush(stdout);
    return failure.empty();
}

void Conversation::run(const Words& command) const {
    std::string known;
    for (const Command& candidate : commands_) {
        if (candidate.form.front() == command.front()) {
            if (candidate.form.size() != command.size())
                throw std::invalid_argument("usage: " + candidate.usage);
            candidate.run(Words(command.begin() + 1, command.end()));
            return;
        }
        known += (known.empty() ? "" : ", ") + candidate.form.front();
    }
    throw std::invalid_argument("no such command; there are: " + known);
}

}  // namespace appserver
