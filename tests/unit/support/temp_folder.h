#ifndef TESTS_UNIT_SUPPORT_TEMP_FOLDER_H
#define TESTS_UNIT_SUPPORT_TEMP_FOLDER_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

/// A folder of the test's own that goes with it.
class TempFolder
{
public:
    TempFolder()
    {
        m_path = (std::filesystem::temp_directory_path() / "unit-XXXXXX").string();
        EXPECT_NE(::mkdtemp(m_path.data()), nullptr);
    }
    ~TempFolder() { std::filesystem::remove_all(m_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /// The path of a file in the folder.
    std::string file(const std::string& name) const { return m_path + "/" + name; }

    /// Writes a file of the folder. @return its path
    std::string write(const std::string& name, const std::string& bytes) const
    {
        std::ofstream(file(name), std::ios::binary) << bytes;
        return file(name);
    }

private:
    std::string m_path;
};

#endif
