// migrate_test.cpp: two people, two commands: migrate give and migrate take on two machines, from a wrong PIN to the
// last file, with a cancel and a resume between.
#include "tests/e2e/machines.h"
#include "tools/driver/process.h"
#include <atomic>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <thread>

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// One migrate with what it says, object by object.
struct Migrate {
    std::mutex        lock;
    std::vector<json> said;
    Child             child;

    void Start(const MachinePtr &machine, const std::vector<std::string> &arguments)
    {
        std::vector<std::string> command = InstalledCommand(machine, "migrate");
        command.insert(command.end(), arguments.begin(), arguments.end());
        command.push_back("--json");
        child = StartChild(
            command, machine->environment,
            [this](const std::string &sLine) {
                const std::lock_guard<std::mutex> guard(lock);
                said.push_back(json::parse(sLine, nullptr, false));
            },
            machine->plan.sFolder + ".migrate.log");
    }
    // The first object of that kind from the nFrom-th on; null when none comes in time.
    json Await(const std::string &sEvent, size_t nFrom = 0)
    {
        for (int i = 0; i < 1800; i++, std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
            const std::lock_guard<std::mutex> guard(lock);
            for (size_t n = nFrom; n < said.size(); n++)
                if (said[n].is_object() && said[n].value("event", "") == sEvent) return said[n];
        }
        return nullptr;
    }
    int End()
    {
        int nExit = -1;
        return WaitForChild(child, std::chrono::seconds(120), &nExit) ? nExit : -1000;
    }
    std::vector<json> All(const std::string &sEvent)
    {
        const std::lock_guard<std::mutex> guard(lock);
        std::vector<json>                 found;
        for (const json &object : said)
            if (object.is_object() && object.value("event", "") == sEvent) found.push_back(object);
        return found;
    }
    std::string Text()
    {
        const std::lock_guard<std::mutex> guard(lock);
        std::string                       sText;
        for (const json &object : said) sText += object.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
        return sText;
    }
};

} // namespace

TEST_F(TwoMachines, WrongPinPreviewCancelResume)
{
    constexpr unsigned FILES      = 60;
    const std::string  sDocuments = KnownFolder(old, "Documents");
    // large enough that a person's Ctrl-C comes in time: a Wine prefix is much slower
    const bool     bHosted   = old->plan.eKind == MachineKind::Hosted && next->plan.eKind == MachineKind::Hosted;
    const uint64_t cbPicture = (bHosted ? 300 : 60) << 20;
    for (unsigned n = 0; n < FILES; n++)
        MakeFile(HostPathOf(old, sDocuments + "\\Briefe\\Brief " + std::to_string(n) + ".txt"), 1000 + n, n + 1);
    MakeFile(HostPathOf(old, KnownFolder(old, "Pictures") + "\\groß.jpg"), cbPicture, 7);
    MakeFile(HostPathOf(next, KnownFolder(next, "Documents") + "\\Briefe\\Brief 5.txt"), 10, 99);
    MakeFile(HostPathOf(old, "D:\\Fotos\\a.jpg"), 10, 98);

    Migrate give, wrong, preview, take, resume;
    give.Start(old, {"give"});
    const json pin = give.Await("pin");
    ASSERT_TRUE(pin.is_object()) << give.Text();
    const std::string sPin = pin.value("pin", "");

    wrong.Start(next, {"take", sPin == "1" ? "2" : "1", "--preview"});
    EXPECT_EQ(wrong.End(), 3) << wrong.Text();
    EXPECT_EQ(wrong.Await("trouble").value("cause", ""), "The PIN is wrong.") << wrong.Text();

    preview.Start(next, {"take", sPin, "Documents", "pictures", "D:\\Fotos\\", "D:\\nichts", "--preview"});
    EXPECT_EQ(preview.End(), 0) << preview.Text();
    const auto items = preview.All("item");
    ASSERT_EQ(items.size(), 4U) << preview.Text();
    EXPECT_EQ(items[0].value("files", 0U), FILES);
    EXPECT_STRCASEEQ(items[0].value("place", "").c_str(), ExpectedPath(old, next, sDocuments).c_str());
    ASSERT_EQ(items[0]["existing"].size(), 1U);
    EXPECT_STRCASEEQ(items[0]["existing"][0].get<std::string>().c_str(),
                     (KnownFolder(next, "Documents") + "\\Briefe\\Brief 5.txt").c_str());
    EXPECT_EQ(items[1].value("bytes", uint64_t{0}), cbPicture);
    EXPECT_EQ(items[2].value("place", ""), ExpectedPath(old, next, "D:\\Fotos"));
    EXPECT_FALSE(items[3].value("found", true));
    EXPECT_FALSE(fs::exists(HostPathOf(next, KnownFolder(next, "Pictures") + "\\groß.jpg"))) << "only looked";

    take.Start(next, {"take", sPin, "Documents", "Pictures", "--yes"});
    ASSERT_TRUE(take.Await("progress").is_object()) << take.Text();
    kill(static_cast<pid_t>(ChildPid(take.child)), SIGINT);
    const int nTaken = take.End();
    EXPECT_EQ(nTaken, 4) << take.Text();

    resume.Start(next, {"take", "--resume", "--yes"});
    EXPECT_EQ(resume.End(), 0) << resume.Text() << give.Text();
    EXPECT_EQ(resume.Await("result").value("files", 0U), FILES + 1);
    EXPECT_EQ(give.End(), 0) << give.Text();
    EXPECT_TRUE(SameContent(HostPathOf(old, KnownFolder(old, "Pictures") + "\\groß.jpg"),
                            HostPathOf(next, KnownFolder(next, "Pictures") + "\\groß.jpg")));
    for (unsigned n = 0; n < FILES; n++) {
        const std::string sName = "\\Briefe\\Brief " + std::to_string(n);
        EXPECT_TRUE(
            SameContent(HostPathOf(old, sDocuments + sName + ".txt"),
                        HostPathOf(next, KnownFolder(next, "Documents") + sName + (n == 5 ? " (2).txt" : ".txt"))))
            << n;
    }
}
