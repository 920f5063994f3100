#include "change_record.h"
#include "support.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using quarnctl::ChangeFolder;
using quarnctl::ChangeRecord;

namespace {

class quarnctl_change_record : public testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = std::filesystem::temp_directory_path() / "quarnctl-XXXXXX";
        path = mkdtemp(pattern.data());
    }
    void TearDown() override { std::filesystem::remove_all(path); }

    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(path))
            found.push_back(entry.path().filename());
        std::ranges::sort(found);
        return found;
    }

    ChangeRecord record(unsigned seconds = 60) const
    {
        return quarnctl::new_record(json(R"({"[NIC/eth0]MTU":1500})").get(), seconds);
    }

    std::string path;
};

using Names = std::vector<std::string>;

} // namespace

TEST_F(quarnctl_change_record, is_read_as_it_was_written)
{
    const ChangeFolder folder(path);
    const ChangeRecord written = record();
    ASSERT_TRUE(folder.add(written).is_open());
    const std::optional<ChangeRecord> found = folder.read(quarnctl::PENDING);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->id, written.id);
    EXPECT_EQ(found->deadline, written.deadline);
    EXPECT_EQ(print(found->restore.get()), R"({"[NIC/eth0]MTU":1500})");
    EXPECT_EQ(found->milliseconds, 60000U);
    EXPECT_EQ(names(), Names{"pending.json"});
}

TEST_F(quarnctl_change_record, may_be_read_and_taken_by_the_whole_group_whatever_the_umask)
{
    const mode_t before = umask(0077);
    const ChangeFolder folder(path);
    (void)folder.add(record());
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat((path + "/pending.json").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
}

TEST_F(quarnctl_change_record, of_a_second_change_is_refused_while_one_waits_or_is_taken_back)
{
    const ChangeFolder folder(path);
    ASSERT_TRUE(folder.add(record()).is_open());
    EXPECT_FALSE(folder.add(record()).is_open());
    EXPECT_EQ(errno, EEXIST);
    ASSERT_TRUE(folder.begin_restoring());
    EXPECT_FALSE(folder.add(record()).is_open());
    EXPECT_EQ(errno, EEXIST);
    ASSERT_TRUE(folder.end_restoring());
    EXPECT_TRUE(folder.add(record()).is_open());
    EXPECT_EQ(names(), Names{"pending.json"});
}

TEST_F(quarnctl_change_record, is_under_way_until_its_maker_lets_go_of_it)
{
    const ChangeFolder folder(path);
    {
        const OwnedDescriptor maker = folder.add(record());
        EXPECT_TRUE(folder.is_under_way());
    }
    EXPECT_FALSE(folder.is_under_way());
}

TEST_F(quarnctl_change_record, goes_to_the_confirm_or_to_the_restoring_and_not_to_both)
{
    const ChangeFolder folder(path);
    (void)folder.add(record());
    EXPECT_TRUE(folder.keep_change());
    EXPECT_FALSE(folder.begin_restoring());
    EXPECT_EQ(errno, ENOENT);
    (void)folder.add(record());
    EXPECT_TRUE(folder.begin_restoring());
    EXPECT_FALSE(folder.keep_change());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(quarnctl_change_record, has_a_later_deadline_once_the_daemon_has_answered)
{
    const ChangeFolder folder(path);
    const ChangeRecord first = record();
    EXPECT_EQ(folder.deadline_of(first), first.deadline);
    ASSERT_TRUE(folder.mark_answered(first, first.deadline + 5000));
    EXPECT_EQ(folder.deadline_of(first), first.deadline + 5000);
    const ChangeRecord second = record();
    EXPECT_EQ(folder.deadline_of(second), second.deadline);
}

TEST_F(quarnctl_change_record, is_watched_only_when_the_guard_has_seen_this_very_one)
{
    const ChangeFolder folder(path);
    const ChangeRecord first = record();
    EXPECT_FALSE(folder.is_watched(first));
    ASSERT_TRUE(folder.mark_watched(first));
    EXPECT_TRUE(folder.is_watched(first));
    EXPECT_FALSE(folder.is_watched(record()));
}

TEST_F(quarnctl_change_record, of_another_boot_is_known_by_the_boot_in_which_it_was_watched)
{
    const ChangeFolder folder(path);
    const ChangeRecord written = record();
    EXPECT_FALSE(folder.is_of_earlier_boot(written));
    ASSERT_TRUE(folder.mark_watched(written));
    EXPECT_FALSE(folder.is_of_earlier_boot(written));
    write_text(path + "/watched.json", R"({"id":")" + written.id + R"(","boot_id":"another"})");
    EXPECT_TRUE(folder.is_of_earlier_boot(written));
}

TEST_F(quarnctl_change_record, that_is_damaged_a_link_or_a_pipe_is_none)
{
    const ChangeFolder folder(path);
    const std::string pending = path + "/pending.json";
    const auto refused = [&] { return !folder.read(quarnctl::PENDING) && errno != ENOENT; };
    write_text(pending, R"({"id":"1","milliseconds":2,"deadline":3)");
    EXPECT_TRUE(refused());
    write_text(pending, R"({"id":"1","milliseconds":2,"deadline":3,"restore":[]})");
    EXPECT_TRUE(refused());
    std::filesystem::remove(pending);
    write_text(path + "/elsewhere", R"({"id":"1","milliseconds":2,"deadline":3,"restore":{}})");
    std::filesystem::create_symlink(path + "/elsewhere", pending);
    EXPECT_TRUE(refused());
    std::filesystem::remove(pending);
    ASSERT_EQ(mkfifo(pending.c_str(), 0666), 0);
    EXPECT_TRUE(refused());
    EXPECT_TRUE(folder.set_aside(quarnctl::PENDING));
    EXPECT_EQ(names(), (Names{"elsewhere", "pending.json.damaged"}));
}

TEST_F(quarnctl_change_record, has_one_guard)
{
    const ChangeFolder first(path);
    const ChangeFolder second(path);
    EXPECT_TRUE(first.lock_for_guard());
    EXPECT_FALSE(second.lock_for_guard());
}

TEST_F(quarnctl_change_record, wakes_those_who_wait_for_a_change)
{
    const ChangeFolder folder(path);
    const quarnctl::FolderWatch watch(path);
    ASSERT_TRUE(folder.mark_watched(record()));
    // Without the change this would wait for ever.
    watch.wait(-1);
}

TEST_F(quarnctl_change_record, that_cannot_be_written_leaves_nothing_behind)
{
    const ChangeFolder folder(path);
    write_text(path + "/filler", "");
    const FullDisk full(path + "/filler");
    EXPECT_FALSE(folder.add(record()).is_open());
    EXPECT_EQ(names(), Names{"filler"});
}
