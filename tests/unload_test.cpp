// The library, loaded and unloaded while the program goes on.

#include <gtest/gtest.h>

#include "tests/loaded_library.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

typedef std::vector<unsigned long> IDS;

TEST(Unloading, TakesTheModuleAndItsMessageNumbersOut) {
    for (const char* time : {"first", "second"}) {
        SCOPED_TRACE(time);
        EXPECT_FALSE(MEM_INITIALIZER::is_loaded("PGM_PYTHON"));
        EXPECT_EQ(MSG_ID_REGISTRAR::registered(), IDS{});
        {
            const LOADED_LIBRARY library(PGM_PYTHON_LIBRARY);
            ASSERT_TRUE(library.is_loaded());
            EXPECT_TRUE(MEM_INITIALIZER::is_loaded("PGM_PYTHON"));
            EXPECT_EQ(MSG_ID_REGISTRAR::registered(), (IDS{20246, 20259, 20351, 20354, 20353}));
        }
        EXPECT_FALSE(MEM_INITIALIZER::is_loaded("PGM_PYTHON"));
        EXPECT_EQ(MSG_ID_REGISTRAR::registered(), IDS{});
    }
}

}  // namespace
