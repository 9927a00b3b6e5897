#include "commands.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace bench {

void ServeCommands(const std::map<std::string, Command>& commands)
{
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream words(line);
        std::string name;
        int count = 0;
        int parameter = 0;
        words >> name >> count >> parameter;
        const auto found = commands.find(name);
        if (found == commands.end()) {
            std::cerr << "bench: no command " << name << '\n';
            exit(1);
        }
        for (const auto& [key, value] : found->second(count, parameter)) {
            std::cout << key << '=' << value << ' ';
        }
        std::cout << std::endl;
    }
}

}  // namespace bench
