#include "program.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

namespace bench {
namespace {

void RunChild(const std::vector<std::string>& command, int input, int output)
{
    cpu_set_t processor;
    CPU_ZERO(&processor);
    CPU_SET(static_cast<size_t>(BenchProcessor()), &processor);
    std::vector<char*> arguments;
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    if (sched_setaffinity(0, sizeof(processor), &processor) == 0 && dup2(input, 0) == 0 && dup2(output, 1) == 1) {
        execvp(arguments[0], arguments.data());
    }
    perror(arguments[0]);
    _exit(127);
}

}  // namespace

int BenchProcessor()
{
    static const int chosen = [] {
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        sched_getaffinity(0, sizeof(allowed), &allowed);
        int last = CPU_SETSIZE - 1;
        while (last > 0 && !CPU_ISSET(static_cast<size_t>(last), &allowed)) {
            --last;
        }
        return last;
    }();
    return chosen;
}

void Fail(const std::string& text)
{
    std::cerr << "bench: " << text << '\n';
    exit(1);
}

Program::Program(const std::vector<std::string>& command) : name_(command.front())
{
    int requests[2];
    int answers[2];
    if (pipe2(requests, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
        Fail("pipe");
    }
    pid_ = fork();
    if (pid_ == 0) {
        RunChild(command, requests[0], answers[1]);
    }
    close(requests[0]);
    close(answers[1]);
    requests_ = fdopen(requests[1], "w");
    answers_ = fdopen(answers[0], "r");
    if (pid_ < 0 || requests_ == nullptr || answers_ == nullptr || ReadLine() != "ready\n") {
        Fail(name_ + " does not start");
    }
}

Program::~Program()
{
    fclose(requests_);
    waitpid(pid_, nullptr, 0);
    fclose(answers_);
}

std::string Program::ReadLine()
{
    char line[1024];
    if (fgets(line, sizeof(line), answers_) == nullptr) {
        Fail(name_ + " has ended");
    }
    return line;
}

Values Program::Ask(const std::string& name, int count, int parameter)
{
    fprintf(requests_, "%s %d %d\n", name.c_str(), count, parameter);
    fflush(requests_);
    Values values;
    std::istringstream words(ReadLine());
    std::string word;
    while (words >> word) {
        const size_t equals = word.find('=');
        values[word.substr(0, equals)] = strtod(word.c_str() + equals + 1, nullptr);
    }
    return values;
}

Values ProcessSize(pid_t pid)
{
    const std::map<std::string, std::string> keys = {
        {"VmRSS:", "rss_kib"}, {"RssAnon:", "anon_kib"}, {"Threads:", "threads"}};
    Values values;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        std::istringstream words(line);
        std::string key;
        double value = 0;
        words >> key >> value;
        const auto wanted = keys.find(key);
        if (wanted != keys.end()) {
            values[wanted->second] = value;
        }
    }
    return values;
}

}  // namespace bench
