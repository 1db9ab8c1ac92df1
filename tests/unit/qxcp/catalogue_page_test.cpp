#include "qxcp/catalogue_page.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

// The page for people must say what the agent does: after a change of the catalogue, put the output of `qxcp
// catalogue` between the two marks.
TEST(CataloguePage, DocumentIsUpToDate) {
    std::ifstream file(QX_SOURCE_DIR "/docs/protocol.md");
    ASSERT_TRUE(file);
    std::stringstream content;
    content << file.rdbuf();
    std::string document = content.str();
    std::string begin = "<!-- made by qxcp catalogue: begin -->\n";
    size_t start = document.find(begin);
    size_t end = document.find("<!-- made by qxcp catalogue: end -->\n");
    ASSERT_NE(start, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    start += begin.size();
    EXPECT_TRUE(document.substr(start, end - start) == cp_catalogue_page())
        << "docs/protocol.md differs from `qxcp catalogue`";
}

}  // namespace
