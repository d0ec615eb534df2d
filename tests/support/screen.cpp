#include "screen.h"

#include "paths.h"
#include "temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace pnvtest {

void ExpectScreen(const std::string& name, const std::string& shown)
{
    const std::string path = DataPath("screens/" + name + ".txt");
    if (std::getenv("CMSVERIFY_RECORD") != nullptr) {
        std::ofstream(path, std::ios::binary) << shown;
        GTEST_SKIP() << "recorded " << path << " and compared nothing";
    }
    std::istringstream shownLines(shown);
    std::ifstream recordedLines(path);
    ASSERT_TRUE(recordedLines) << path;
    for (int number = 1; shownLines || recordedLines; ++number) {
        std::string line;
        std::string recorded;
        std::getline(shownLines, line);
        std::getline(recordedLines, recorded);
        ASSERT_EQ(line, recorded) << path << ":" << number;
    }
}

} // namespace pnvtest
