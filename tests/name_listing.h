// What every listing of names does with the caller's buffer, whatever its size.
#pragma once

#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "region_expectations.h"

namespace test {

using Names = std::vector<std::string>;

/// The names, each with its NUL, then one more NUL; two NULs if there are no names.
inline std::string closed_list(const Names& names) {
    std::string list;
    for (const std::string& name : names) list.append(name).push_back('\0');
    if (list.empty()) list.push_back('\0');
    list.push_back('\0');
    return list;
}

/// The names that are written into a buffer of `size` bytes before one does not fit with the closing NUL.
inline std::string names_that_fit(const Names& names, size_t size) {
    std::string list;
    for (const std::string& name : names) {
        if (list.size() + name.size() + 2 > size) break;
        list.append(name).push_back('\0');
    }
    return list;
}

/// Has `list(buf, size)` measure and list these names, in buffers of every size from 0 to more than enough.
template <typename List>
void expect_listing(const List& list, const char* tag, const Names& names) {
    fakes::Companions& fake = fakes::companions();
    const std::string whole = closed_list(names);
    const auto needed = static_cast<uint32_t>(whole.size());
    for (uint32_t before : {0u, 1u, 0xFFFFFFFFu}) {
        fake.take_lines();
        EXPECT_EQ(list(nullptr, &before), SHMNM_OK);
        EXPECT_THAT(fake.take_lines(), Succeeds(tag));
        EXPECT_EQ(before, needed);
    }
    for (uint32_t given = 0; given < needed + 4; ++given) {
        SCOPED_TRACE("a buffer of " + std::to_string(given));
        GuardedBuffer<char> buffer(needed + 4, '#', '+');
        std::string expected = given < needed ? names_that_fit(names, given) : whole;
        expected.resize(needed + 4, '#');
        uint32_t size = given;
        const uint32_t result = list(buffer.data(), &size);
        if (given < needed) {
            EXPECT_EQ(result, SHMNM_ERR_BUFFER);
            EXPECT_THAT(fake.take_lines(), FailsSilently(tag, SHMNM_ERR_BUFFER));
            EXPECT_EQ(size, given);
        } else {
            EXPECT_EQ(result, SHMNM_OK);
            EXPECT_THAT(fake.take_lines(), Succeeds(tag));
            EXPECT_EQ(size, needed);
        }
        EXPECT_EQ(std::string(buffer.data(), needed + 4), expected);
        EXPECT_TRUE(buffer.guards_are_whole());
    }
    // A size that is negative as a signed number is too small.
    for (const uint32_t given : {0x80000000u, 0xFFFFFFFFu}) {
        GuardedBuffer<char> buffer(needed, '#', '+');
        uint32_t size = given;
        EXPECT_EQ(list(buffer.data(), &size), SHMNM_ERR_BUFFER);
        EXPECT_THAT(fake.take_lines(), FailsSilently(tag, SHMNM_ERR_BUFFER));
        EXPECT_EQ(size, given);
        EXPECT_EQ(std::string(buffer.data(), needed), std::string(needed, '#'));
    }
    GuardedBuffer<char> buffer(needed, '#', '+');
    uint32_t size = 0x7FFFFFFF;
    EXPECT_EQ(list(buffer.data(), &size), SHMNM_OK) << "the largest positive size";
    EXPECT_EQ(std::string(buffer.data(), needed), whole);
    EXPECT_TRUE(buffer.guards_are_whole());
    EXPECT_EQ(size, needed);
    // If `size` is null, nothing is listed.
    fake.take_lines();
    EXPECT_EQ(list(nullptr, nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(fake.take_lines(), Fails(tag, "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(list(buffer.data(), nullptr), SHMNM_ERR_PARAM);
    EXPECT_THAT(fake.take_lines(), Fails(tag, "invalid param", SHMNM_ERR_PARAM));
    EXPECT_EQ(std::string(buffer.data(), needed), whole);
}

}  // namespace test
