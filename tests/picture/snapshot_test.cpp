// Copies of a region's bytes: what is read from them, and dumps in files.
#include "picture/snapshot.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "picture/error.h"
#include "picture/picture_document.h"
#include "picture/platform.h"
#include "support/temporary_folder.h"

namespace picture {
namespace {

Snapshot of_bytes(const std::vector<uint8_t>& bytes) {
    Snapshot snapshot;
    snapshot.bytes = bytes;
    return snapshot;
}

TEST(Snapshot, HasWordsWhoseFirstByteIsTheLeast) {
    const Snapshot snapshot = of_bytes({1, 2, 3, 4, 5, 6, 7, 8, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(snapshot.word(0), 0x04030201u);
    EXPECT_EQ(snapshot.word(4), 0x08070605u);
    EXPECT_EQ(snapshot.long_word(0), 0x0807060504030201u);
    EXPECT_EQ(snapshot.long_word(4), 0xFFFFFFFF08070605u);
    EXPECT_EQ(snapshot.number(8), -1);
}

TEST(Snapshot, HasTextsUpToTheirNulTheirEndOrItsOwn) {
    const Snapshot snapshot = of_bytes({'a', 'b', 0, 'c', 'd'});
    EXPECT_EQ(snapshot.text(0, 5), "ab");
    EXPECT_EQ(snapshot.text(0, 1), "a");
    EXPECT_EQ(snapshot.text(2, 3), "");
    EXPECT_EQ(snapshot.text(3, 1), "c");
    EXPECT_EQ(snapshot.text(3, 9), "cd");
    EXPECT_EQ(snapshot.text(4, 9), "d");
    EXPECT_EQ(snapshot.text(5, 9), "");
    EXPECT_EQ(snapshot.text(99, 9), "");
}

TEST(Snapshot, HasNoTextAfterItsEnd) {
    Snapshot snapshot = of_bytes(std::vector<uint8_t>(64, 'x'));
    // The memory after the end keeps its bytes.
    snapshot.bytes.resize(5);
    EXPECT_EQ(snapshot.text(3, 9), "xx");
}

class DumpFile : public testing::Test {
  protected:
    std::string file() const { return (folder_.path() / "x.dump").string(); }
    void write(const std::string& bytes) { folder_.write("x.dump", bytes); }
    std::string refusal(ErrorKind kind) const {
        try {
            read_dump(file());
            return "";
        } catch (const Error& error) {
            EXPECT_EQ(error.kind, kind);
            return error.what();
        }
    }

    test::TemporaryFolder folder_;
};

TEST_F(DumpFile, IsReadWholeWithTheCountsOfItsHeader) {
    std::string bytes(200'000, 'x');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % 251);
    const Counts counts{4, 3, 2, 1};
    const int32_t written[] = {counts.servers, counts.hb, counts.np, counts.fst};
    std::memcpy(bytes.data() + 8, written, sizeof written);
    write(bytes);
    for (const Snapshot& dump : {read_dump(file()), read_dump_of_utf8_name(file())}) {
        EXPECT_EQ(std::string(dump.bytes.begin(), dump.bytes.end()), bytes);
        EXPECT_EQ(dump.mapped, bytes.size());
        EXPECT_EQ(dump.counts, counts);
        EXPECT_FALSE(dump.live);
    }
}

TEST_F(DumpFile, HasAtLeastAHeader) {
    write(std::string(1084, '\0'));
    EXPECT_EQ(refusal(ErrorKind::not_a_dump), "");
    write(std::string(1083, '\0'));
    EXPECT_THAT(refusal(ErrorKind::not_a_dump),
                testing::EndsWith("x.dump: it has 1083 bytes and the header alone has 1084, so it was cut or is not a "
                                  "dump"));
}

TEST_F(DumpFile, IsRefusedIfItIsLargerThanAnyRegion) {
    write("");
    std::filesystem::resize_file(file(), (uint64_t{1} << 32) + 1);
    EXPECT_THAT(refusal(ErrorKind::not_a_dump),
                testing::EndsWith("x.dump: it is larger than any region, which has at most 2^32 bytes"));
}

TEST_F(DumpFile, IsRefusedIfItIsNotThereOrAFolder) {
    EXPECT_THAT(refusal(ErrorKind::not_a_dump), testing::EndsWith(std::string("x.dump: ") + std::strerror(ENOENT)));
    std::filesystem::create_directory(file());
    EXPECT_THAT(refusal(ErrorKind::not_a_dump), testing::EndsWith("x.dump: it is a folder"));
}

TEST_F(DumpFile, IsWrittenAnewInBytesAsGiven) {
    write("longer than what is written over it");
    std::FILE* const stream = platform::open_to_write(file());
    ASSERT_TRUE(stream);
    std::fputs("a\n", stream);
    std::fclose(stream);
    EXPECT_EQ(test::contents_of(file()), "a\n");
    EXPECT_FALSE(platform::open_to_write(file() + "/x"));
}

TEST_F(DumpFile, MayHoldAnExportedPictureInstead) {
    // An empty region.
    std::string dump(1084, '\0');
    write(dump);
    const Document document = read_document(file());
    EXPECT_EQ(document.counts, Counts{});
    const std::string text = to_json(document).dump();
    write(text);
    EXPECT_EQ(to_json(read_document(file())).dump(), text);
    write("{");
    try {
        read_document(file());
        ADD_FAILURE() << "read";
    } catch (const Error& error) {
        EXPECT_EQ(error.kind, ErrorKind::not_a_picture);
        EXPECT_THAT(error.what(), testing::MatchesRegex("cannot read .*x.dump: the document is not a picture in JSON"));
    }
}

}  // namespace
}  // namespace picture
