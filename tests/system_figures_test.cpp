// What the sampler is made of: reading the system's figures, and the load between two readings.
// The program's own pread can hand out single bytes and interrupt itself.

#include "KivFramework/internal/processor_load.h"
#include "KivFramework/platform/memory_pages.h"
#include "KivFramework/platform/processor_ticks.h"
#include "KivFramework/platform/processors.h"

#include "tests/support/allocation_count.h"
#include "tests/support/memory_file.h"
#include "tests/support/temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool reads_are_hard = false;

} // namespace

extern "C" ssize_t pread(int descriptor, void* buffer, std::size_t size, off_t offset) {
    static const auto real = reinterpret_cast<decltype(&pread)>(::dlsym(RTLD_NEXT, "pread"));
    static bool interrupted = false;
    if (!reads_are_hard) {
        return real(descriptor, buffer, size, offset);
    }
    interrupted = !interrupted;
    if (interrupted) {
        errno = EINTR;
        return -1;
    }
    return real(descriptor, buffer, std::min<std::size_t>(size, 1), offset);
}

namespace KivFramework::platform {

bool operator==(const processor_ticks& left, const processor_ticks& right) {
    return left.processor == right.processor && left.user == right.user &&
           left.system == right.system && left.idle == right.idle;
}

void PrintTo(const processor_ticks& ticks, std::ostream* out) {
    *out << "cpu" << ticks.processor << ' ' << ticks.user << ' ' << ticks.system << ' '
         << ticks.idle;
}

} // namespace KivFramework::platform

namespace {

using KivFramework::internal::processor_load;
using KivFramework::internal::tick_counts;
using KivFramework::platform::memory_pages;
using KivFramework::platform::memory_pages_reader;
using KivFramework::platform::processor_ticks;
using KivFramework::platform::processor_ticks_reader;
using testing::ElementsAre;

const processor_ticks unread = {};

// The first `count` processors of a file with that text, over places that show what was left.
std::vector<processor_ticks> ticks_in(const std::string& text, std::size_t count = 3,
                                      std::size_t first = 0) {
    const kiv_test::memory_file file;
    kiv_test::write_file(file.path(), text);
    processor_ticks_reader reader(file.path());
    std::vector<processor_ticks> ticks(count);
    const std::size_t filled = reader.read(ticks, first);
    EXPECT_EQ(static_cast<std::size_t>(std::count(ticks.begin(), ticks.end(), unread)),
              count - filled);
    return ticks;
}

// Free, active and inactive bytes; nothing where the counts cannot be read.
std::optional<std::vector<unsigned long long>> bytes_in(const std::string& text) {
    const kiv_test::memory_file file;
    kiv_test::write_file(file.path(), text);
    memory_pages_reader reader(file.path());
    const std::optional<memory_pages> pages = reader.read();
    if (!pages) {
        return std::nullopt;
    }
    return {{pages->free * pages->page_size, pages->active * pages->page_size,
             pages->inactive * pages->page_size}};
}

constexpr const char* stat_text = "cpu  6 66 666 6666 0 0 0 0 0 0\n"
                                  "cpu0 1 2 3 4 5 6 7 8 9 10\n"
                                  "cpu1 11 12 13 14 15 16 17 18 19 20\n"
                                  "cpu10 21 22 23 24 25 26 27 28 29 30\n"
                                  "intr 12345 0 0\n"
                                  "ctxt 1\n";

constexpr const char* memory_text = "MemTotal:       24684084 kB\n"
                                    "MemFree:        23674096 kB\n"
                                    "MemAvailable:   24106084 kB\n"
                                    "SwapCached:            0 kB\n"
                                    "Active:           286968 kB\n"
                                    "Inactive:         177780 kB\n"
                                    "Active(anon):       1576 kB\n"
                                    "Inactive(anon):    24596 kB\n";

TEST(ProcessorTicks, AreUserSystemAndIdleOfEveryProcessorInOrder) {
    EXPECT_THAT(ticks_in(stat_text),
                ElementsAre(processor_ticks{0, 1, 3, 4}, processor_ticks{1, 11, 13, 14},
                            processor_ticks{10, 21, 23, 24}));
}

TEST(ProcessorTicks, FillAsManyPlacesAsAreAskedFor) {
    EXPECT_THAT(ticks_in(stat_text, 1), ElementsAre(processor_ticks{0, 1, 3, 4}));
    EXPECT_THAT(ticks_in(stat_text, 0), ElementsAre());
    EXPECT_THAT(ticks_in(stat_text, 4),
                ElementsAre(processor_ticks{0, 1, 3, 4}, processor_ticks{1, 11, 13, 14},
                            processor_ticks{10, 21, 23, 24}, unread));
}

TEST(ProcessorTicks, SkipTheFirstOnes) {
    EXPECT_THAT(ticks_in(stat_text, 1, 2), ElementsAre(processor_ticks{10, 21, 23, 24}));
    EXPECT_THAT(ticks_in(stat_text, 1, 3), ElementsAre(unread));
    EXPECT_THAT(ticks_in(stat_text, 1, INT_MAX), ElementsAre(unread));
}

TEST(ProcessorTicks, HoldCountsOf64Bits) {
    EXPECT_THAT(ticks_in("cpu  0 0 0 0\ncpu0 9223372036854775807 1 4294967296 0\n", 1),
                ElementsAre(processor_ticks{0, LONG_MAX, 4294967296, 0}));
}

TEST(ProcessorTicks, OfAShortOrForeignFileAreNotRead) {
    for (const char* text :
         {"", "\n", "cpu", "cpu  1 2 3 4\n", "cpu  1 2 3 4\ncpu0 1 2 3 4", "cpu  1 2 3 4\ncpu0\n",
          "cpu  1 2 3 4\ncpu0 1 2 3\n", "cpu  1 2 3 4\ncpu0 1 2 x 4\n",
          "cpu  1 2 3 4\ncpu0 1 2 3 9223372036854775808\n", "cpu  1 2 3 4\ncpu 1 2 3\n",
          "cpu  1 2 3 4\nintr 1\ncpu0 1 2 3 4\n", "cpu  1 2 3 4\ncpux 1 2 3 4\n"}) {
        SCOPED_TRACE(text);
        EXPECT_THAT(ticks_in(text), ElementsAre(unread, unread, unread));
    }
}

TEST(ProcessorTicks, BeforeABrokenLineAreRead) {
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\ncpu0 1 2 3 4\ncpu1 5 6", 2),
                ElementsAre(processor_ticks{0, 1, 3, 4}, unread));
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\ncpu0 1 2 3 4\ncpu1 5 ?\ncpu2 1 2 3 4\n", 2),
                ElementsAre(processor_ticks{0, 1, 3, 4}, unread));
}

TEST(ProcessorTicks, AreReadToAnyNumberOfProcessors) {
    constexpr int count = 1000;
    std::string text = "cpu  1 2 3 4 5 6 7 8 9 10\n";
    for (int number = 0; number < count; ++number) {
        // Of growing length, so that lines end at every place of a buffer.
        text += "cpu" + std::to_string(number) + ' ' + std::to_string(number) + " 0 2 3" +
                std::string(static_cast<std::size_t>(number % 97), '0') + '\n';
        if (number % 97 > 15) {
            text.replace(text.rfind('3'), std::string::npos, "3 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
        }
    }
    const std::vector<processor_ticks> ticks = ticks_in(text, count);
    for (int number = 0; number < count; ++number) {
        EXPECT_EQ(ticks[static_cast<std::size_t>(number)].processor, number);
        EXPECT_EQ(ticks[static_cast<std::size_t>(number)].user, number);
    }
}

TEST(ProcessorTicks, EndAtALineTooLongToBeOne) {
    const std::string line = "cpu0 1 2 3 4" + std::string(4096 - 13, ' ') + "\n";
    ASSERT_EQ(line.size(), 4096U);
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\n" + line, 1), ElementsAre(processor_ticks{0, 1, 3, 4}));
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\n " + line, 1), ElementsAre(unread));
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\ncpu0 1 2 3 4" + std::string(5000, ' ') + "\n", 1),
                ElementsAre(unread));
    EXPECT_THAT(ticks_in("cpu  1 2 3 4\ncpu0 1 2 3 4\nintr" + std::string(5000, '0') + "\n", 2),
                ElementsAre(processor_ticks{0, 1, 3, 4}, unread));
}

TEST(ProcessorTicks, SurviveReadsOfOneByteAndInterruptedOnes) {
    reads_are_hard = true;
    EXPECT_THAT(ticks_in(stat_text),
                ElementsAre(processor_ticks{0, 1, 3, 4}, processor_ticks{1, 11, 13, 14},
                            processor_ticks{10, 21, 23, 24}));
}

TEST(ProcessorTicks, OfThisSystemAreThoseOfItsProcessorsOnline) {
    const auto count =
        static_cast<std::size_t>(KivFramework::platform::processors_online().value_or(0));
    ASSERT_GT(count, 0U);
    processor_ticks_reader reader;
    std::vector<processor_ticks> ticks(count + 1);
    ASSERT_EQ(reader.read(ticks), count);
    for (std::size_t place = 1; place < count; ++place) {
        EXPECT_GT(ticks[place].processor, ticks[place - 1].processor);
    }
}

TEST(MemoryPages, AreFreeActiveAndInactiveOnes) {
    EXPECT_THAT(
        bytes_in(memory_text),
        testing::Optional(ElementsAre(23674096ULL * 1024, 286968ULL * 1024, 177780ULL * 1024)));
}

TEST(MemoryPages, AreFoundInAnyOrderAndOnlyByTheirWholeLabel) {
    EXPECT_THAT(bytes_in("Active(anon):   4 kB\n"
                         "Inactive:      12 kB\n"
                         "XActive:        4 kB\n"
                         "MemFreeX:       4 kB\n"
                         "Active:         8 kB\n"
                         "Inactive(anon): 4 kB\n"
                         "Active:         4 kB\n" // the first one counts
                         "MemFree:    65536 kB\n"),
                testing::Optional(ElementsAre(65536ULL * 1024, 8ULL * 1024, 12ULL * 1024)));
}

TEST(MemoryPages, AreWholePages) {
    const auto page_size = static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    const std::string almost_two = std::to_string(2 * page_size / 1024 - 1);
    EXPECT_THAT(bytes_in("MemFree: " + almost_two + " kB\nActive: 0 kB\nInactive: 0 kB\n"),
                testing::Optional(ElementsAre(page_size, 0ULL, 0ULL)));
}

TEST(MemoryPages, OfAShortOrForeignFileAreNotRead) {
    for (const char* text :
         {"", "\n", "MemFree: 1 kB\n", "MemFree: 1 kB\nActive: 1 kB\n",
          "MemFree: 1 kB\nActive: 1 kB\nInactive: 1 kB", "MemFree: 1\nActive: 1\nInactive: 1\n",
          "MemFree:\nActive: 1 kB\nInactive: 1 kB\n", "MemFree:  \nActive: 1 kB\nInactive: 1 kB\n",
          "MemFree: x kB\nActive: 1 kB\nInactive: 1 kB\n",
          "MemFree: -1 kB\nActive: 1 kB\nInactive: 1 kB\n",
          "MemFree: 1 MB\nActive: 1 kB\nInactive: 1 kB\n",
          "MemFree: 18446744073709551616 kB\nActive: 1 kB\nInactive: 1 kB\n"}) {
        EXPECT_EQ(bytes_in(text), std::nullopt) << text;
    }
}

TEST(MemoryPages, SurviveReadsOfOneByteAndInterruptedOnes) {
    reads_are_hard = true;
    EXPECT_NE(bytes_in(memory_text), std::nullopt);
}

TEST(MemoryPages, OfThisSystemAreNoMoreThanItHas) {
    memory_pages_reader reader;
    const std::optional<memory_pages> pages = reader.read();
    ASSERT_TRUE(pages);
    const auto all = static_cast<unsigned long long>(::sysconf(_SC_PHYS_PAGES));
    EXPECT_EQ(pages->page_size, static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE)));
    EXPECT_GT(pages->free + pages->active + pages->inactive, 0U);
    EXPECT_LE(pages->free + pages->active + pages->inactive, all);
}

TEST(SystemFigures, OfAnUnreadableFileAreNotRead) {
    const kiv_test::temp_directory directory;
    const std::string missing = directory.file("missing");
    for (const std::string& path : {missing, directory.path()}) {
        processor_ticks_reader ticks_reader(path.c_str());
        memory_pages_reader pages_reader(path.c_str());
        processor_ticks ticks;
        EXPECT_EQ(ticks_reader.read({&ticks, 1}), 0U);
        EXPECT_EQ(ticks, unread);
        EXPECT_FALSE(pages_reader.read());
    }
}

TEST(SystemFigures, AreReadFromAFileThatCouldNotBeOpenedBefore) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("late");
    memory_pages_reader reader(path.c_str());
    EXPECT_FALSE(reader.read());
    kiv_test::write_file(path, memory_text);
    EXPECT_TRUE(reader.read());
}

TEST(SystemFigures, AreReadAgainFromTheFileThatIsOpen) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("figures");
    kiv_test::write_file(path, "cpu  1 2 3 4\ncpu0 1 2 3 4\n");
    processor_ticks_reader reader(path.c_str());
    processor_ticks ticks;
    ASSERT_EQ(reader.read({&ticks, 1}), 1U);

    kiv_test::write_file(path, "cpu  1 2 3 4\ncpu0 5 6 7 8\n");
    ASSERT_EQ(reader.read({&ticks, 1}), 1U);
    EXPECT_EQ(ticks, (processor_ticks{0, 5, 7, 8}));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_EQ(reader.read({&ticks, 1}), 1U);
}

TEST(SystemFigures, AreReadWithoutAllocating) {
    processor_ticks_reader ticks_reader;
    memory_pages_reader pages_reader;
    processor_ticks ticks;
    const long before = kiv_test::allocations();
    for (int reading = 0; reading < 100; ++reading) {
        EXPECT_EQ(ticks_reader.read({&ticks, 1}), 1U);
        EXPECT_TRUE(pages_reader.read());
    }
    EXPECT_EQ(kiv_test::allocations(), before);
}

TEST(SystemFigures, KeepTheirFileClosedToOtherPrograms) {
    // The number that the file will have.
    const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_NE(next, -1);
    ::close(next);
    memory_pages_reader reader;
    ASSERT_TRUE(reader.read());
    EXPECT_EQ(::fcntl(next, F_GETFD), FD_CLOEXEC);
}

float load(const tick_counts& passed) {
    return processor_load({}, passed);
}

TEST(ProcessorLoad, IsTheShareOfUserAndSystemTicks) {
    EXPECT_EQ(load({100, 0, 0}), 100.0F);
    EXPECT_EQ(load({0, 100, 0}), 100.0F);
    EXPECT_EQ(load({0, 0, 100}), 0.0F);
    EXPECT_EQ(load({1, 2, 5}), 37.5F);
    EXPECT_EQ(processor_load({10, 20, 30}, {11, 22, 35}), 37.5F);
}

TEST(ProcessorLoad, IsADoubleCutToSinglePrecision) {
    EXPECT_EQ(load({1, 0, 2}), static_cast<float>(1.0 / 3 * 100));
    EXPECT_EQ(load({1, 1, 1}), static_cast<float>(1.0 / 3 * 100 + 1.0 / 3 * 100));
}

TEST(ProcessorLoad, Is0WhenNoTicksPassed) {
    EXPECT_EQ(load({0, 0, 0}), 0.0F);
    EXPECT_EQ(processor_load({7, 8, 9}, {7, 8, 9}), 0.0F);
    EXPECT_EQ(load({5, 0, -5}), 0.0F); // no number, as 0 / 0 is in it
    EXPECT_EQ(load({5, -5, 0}), 0.0F);
}

TEST(ProcessorLoad, NeverLeaves0To100WhereACounterRunsBackwards) {
    EXPECT_EQ(load({100, 0, -1}), 100.0F); // more than all
    EXPECT_EQ(load({5, 5, -10}), 100.0F);  // infinite
    EXPECT_EQ(load({-5, -5, 10}), 0.0F);
    EXPECT_EQ(load({-1, 0, 100}), 0.0F);
    EXPECT_EQ(load({-10, -10, -20}), 50.0F); // all of them backwards
    EXPECT_EQ(load({10, -20, 0}), 100.0F);
    EXPECT_EQ(load({INT_MIN, 0, 0}), 100.0F);
}

TEST(ProcessorLoad, FollowsCountersThatWrapAt32Bits) {
    EXPECT_EQ(processor_load({INT_MAX, INT_MAX, INT_MAX}, {INT_MIN, INT_MIN + 1, INT_MIN + 4}),
              37.5F);
    EXPECT_EQ(processor_load({-1, 0, 0}, {0, 0, 3}), 25.0F);
}

TEST(ProcessorLoad, AddsDifferencesBeyond32Bits) {
    EXPECT_EQ(load({INT_MAX, INT_MAX, INT_MAX}), static_cast<float>(1.0 / 3 * 100 + 1.0 / 3 * 100));
    EXPECT_EQ(load({INT_MAX, 0, INT_MAX}), 50.0F);
}

} // namespace
