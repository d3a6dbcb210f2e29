// A directory for the files of one test, gone with all that is in it at the end.
#ifndef STANDIN_TESTS_TEMPORARY_DIRECTORY_H
#define STANDIN_TESTS_TEMPORARY_DIRECTORY_H

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

namespace standin_test {

class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "gateway-XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), name);
        path_ = name;
    }

    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

} // namespace standin_test

#endif
