// Uses a little of every floor, as an application does, and prints the version that the log tells: Consumer LOG

#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <string>

#include "mivra/mivra.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string path = argv[1];
    MivraCommonInitialize();
    MivraCommonSetLog(3, std::wstring(path.begin(), path.end()).c_str());
    MivraCommonShutdown();
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::smatch version;
    if (!std::regex_search(text, version, std::regex("Mivra\\.Common v(\\S+) log enabled"))) return 1;
    std::cout << version[1] << '\n';
}
