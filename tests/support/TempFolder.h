#pragma once

#include <string>

namespace Mivra::Test {

/// A fresh folder that goes with everything in it at the end.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path; }
    /// The path of an entry in it.
    std::string operator/(const std::string& name) const { return path + "/" + name; }

private:
    std::string path;
};

/// The bytes of a file; empty when there is none.
std::string ReadWholeFile(const std::string& path);
void WriteWholeFile(const std::string& path, const std::string& content);

}  // namespace Mivra::Test
