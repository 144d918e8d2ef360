#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>

#include "pgm/pgm_common/environment.h"
#include "pgm/pgm_python/announced_text.h"
#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/call_completion.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/script_hooks.h"
#include "tests/support.h"

namespace {

typedef std::vector<std::string> REPORTS;
typedef ANNOUNCED_TEXT::STATE STATE;

double milliseconds_of(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// ---- What a client says.

TEST(AnnouncedText, FollowsTheWordAndALineFeed) {
    ANNOUNCED_TEXT text("word");
    EXPECT_EQ(text.wanted(), 5 + 2048U);
    EXPECT_EQ(text.take("word\nwhy it", 11), STATE::text_awaited);
    EXPECT_EQ(text.wanted(), 2042U);
    EXPECT_EQ(text.take(" failed", 7), STATE::text_awaited);
    EXPECT_EQ(text.text(), "why it failed");
}

TEST(AnnouncedText, MayComeByteByByteAndHoldAnyByte) {
    const std::string said("word\n\0\n\xFF word\n !@#$^&*() x", 24);
    ANNOUNCED_TEXT text("word");
    for (std::size_t index = 0; index < said.size(); ++index) {
        EXPECT_EQ(text.state(), index < 5 ? STATE::word_awaited : STATE::text_awaited);
        EXPECT_EQ(text.text(), index < 5 ? "" : said.substr(5, index - 5));
        text.take(&said[index], 1);
    }
    EXPECT_EQ(text.text(), said.substr(5));
}

TEST(AnnouncedText, AWrongWordIsRefusedOnlyWhenItIsWhole) {
    for (const char* const said : {"xord\ntext", "worx\ntext", "wordxtext", "word text",
                                   "WORD\ntext", "\n\n\n\n\n", "words\n"}) {
        ANNOUNCED_TEXT text("word");
        for (int size = 0; size < 5; ++size) {
            EXPECT_EQ(text.state(), STATE::word_awaited) << said << " " << size;
            text.take(said + size, 1);
        }
        EXPECT_EQ(text.state(), STATE::refused) << said;
        EXPECT_EQ(text.take("word\ntext", 9), STATE::refused) << said;
        EXPECT_EQ(text.wanted(), 0U);
        EXPECT_EQ(text.text(), "");
    }
}

TEST(AnnouncedText, IsCompleteAt2048Bytes) {
    const std::string said(3000, 'x');
    ANNOUNCED_TEXT text("word");
    text.take("word\n", 5);
    EXPECT_EQ(text.take(said.data(), 2047), STATE::text_awaited);
    EXPECT_EQ(text.take(said.data(), 900), STATE::complete);
    EXPECT_EQ(text.wanted(), 0U);
    EXPECT_EQ(text.take("y", 1), STATE::complete);
    EXPECT_EQ(text.text(), std::string(2048, 'x'));
}

// ---- The channel, without an interpreter.

class AnnouncedChannel : public testing::Test {
protected:
    ~AnnouncedChannel() override {
        back_channel.reset();
        before.check();
    }

    void start(PGM_PYTHON_REASONS reasons = PGM_PYTHON_REASONS::both) {
        back_channel = std::make_unique<BACK_CHANNEL>(reasons);
        back_channel->start();
        channel = back_channel->announced();
        ASSERT_EQ(channel.compare(0, 10, "127.0.0.1:"), 0) << channel;
    }

    // Says the word and the text, and waits until it has been taken.
    void tell(const std::string& text) const {
        const CLIENT client(channel);
        client.send(word_of(channel) + "\n" + text);
        client.shut_down_sending();
        EXPECT_TRUE(client.sees_silent_end());
    }

    // Waits until the fixed port's connection has been served.
    static void tell_on_fixed_port(const std::string& text) {
        const CLIENT client;
        client.send(text);
        EXPECT_TRUE(client.sees_silent_end());
    }

    REPORTS completed(bool success = false) {
        milliseconds =
            milliseconds_of([&] { complete_python_call(success, *back_channel, "f", "m"); });
        return receiver.reports;
    }

    static REPORTS failure_with(const std::vector<std::string>& reasons) {
        REPORTS reports = {"error 20351: Fail to execute function f in file m"};
        for (const std::string& reason : reasons) {
            reports.push_back("error 20353: " + reason);
        }
        return reports;
    }

    NOTHING_LEFT_BEHIND before;
    RECORDING_RECEIVER receiver;
    std::unique_ptr<BACK_CHANNEL> back_channel;
    std::string channel;
    double milliseconds = 0;
};

TEST_F(AnnouncedChannel, IsNamedByLoopbackPortAndARandomWord) {
    EXPECT_STREQ(reasons_channel_variable, "PGM_PYTHON_REASONS_CHANNEL");
    EXPECT_EQ(BACK_CHANNEL().announced(), "");
    std::vector<std::string> words;
    for (int round = 0; round < 3; ++round) {
        start();
        EXPECT_GT(port_of(channel), 0U);
        EXPECT_LT(port_of(channel), 65536U);
        EXPECT_EQ(channel,
                  "127.0.0.1:" + std::to_string(port_of(channel)) + ":" + word_of(channel));
        words.push_back(word_of(channel));
        EXPECT_EQ(words.back().size(), 32U);  // 128 bits
        EXPECT_EQ(words.back().find_first_not_of("0123456789abcdef"), std::string::npos);
        back_channel.reset();
    }
    EXPECT_NE(words[0], words[1]);
    EXPECT_NE(words[1], words[2]);
    EXPECT_NE(words[0], words[2]);
}

TEST_F(AnnouncedChannel, ATextIsRelayedAndTheCallDoesNotWait) {
    start();
    tell("one !@#$^&*() two");
    EXPECT_EQ(completed(), failure_with({"one", "two"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ATextMayComeInPieces) {
    start();
    const CLIENT client(channel);
    for (const char letter : word_of(channel) + "\nin pieces") {
        client.send(std::string(1, letter));
    }
    client.shut_down_sending();
    EXPECT_TRUE(client.sees_silent_end());
    EXPECT_EQ(completed(), failure_with({"in pieces"}));
}

TEST_F(AnnouncedChannel, ALongerTextIsCutAt2048Bytes) {
    start();
    CLIENT(channel).send(word_of(channel) + "\n" + std::string(2048, 'x') + "yyy");
    EXPECT_EQ(completed(), failure_with({std::string(2048, 'x')}));
}

TEST_F(AnnouncedChannel, OneTextACallCounts) {
    start();
    tell("first");
    const CLIENT second(channel);
    if (second.connected()) {
        second.tries_to_send(word_of(channel) + "\nsecond");
    }
    EXPECT_EQ(completed(), failure_with({"first"}));
}

TEST_F(AnnouncedChannel, OfASuccessfulCallNothingIsRelayedAndNothingWaitedFor) {
    start();
    const CLIENT holding(channel);
    const CLIENT speaking(channel);
    speaking.send(word_of(channel) + "\nhalf");
    EXPECT_EQ(completed(true), REPORTS{});
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ItsTextWinsOverOneOnTheFixedPortBefore) {
    start();
    tell_on_fixed_port("a stranger's");
    tell("own");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ItsTextWinsOverOneOnTheFixedPortAfterwards) {
    start();
    const CLIENT stranger;
    tell("own");
    stranger.tries_to_send("a stranger's");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ItsTextCountsWhileAStrangerHoldsTheFixedPort) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    start();
    tell("own");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 90);
    back_channel.reset();
}

TEST_F(AnnouncedChannel, ATextOnTheFixedPortCountsWhereItHasNone) {
    start();
    const CLIENT holding(channel);
    const CLIENT wrong(channel);
    wrong.send(std::string(33, 'x'));
    tell_on_fixed_port("old one !@#$^&*() old two");
    EXPECT_EQ(completed(), failure_with({"old one", "old two"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ASilentCallWaitsNoLongerThanTheFixedPortLetsIt) {
    {
        start();
        {
            const CLIENT stranger;
            stranger.shut_down_sending();
            EXPECT_TRUE(stranger.sees_silent_end());
        }
        completed();
        EXPECT_LT(milliseconds, 90);
    }
    {
        const PORT_HOLDER holder;
        ASSERT_TRUE(holder.holds());
        start();
        completed();
        EXPECT_LT(milliseconds, 90);
    }
    {
        start();
        const CLIENT holding(channel);
        completed();
        EXPECT_GE(milliseconds, 490);
        EXPECT_LT(milliseconds, 1500);
    }
}

TEST_F(AnnouncedChannel, ATextWhoseSenderHoldsOnCountsAfterTheGrace) {
    start();
    tell_on_fixed_port("a stranger's");
    const CLIENT client(channel);
    client.send(word_of(channel) + "\nown");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 1500);
}

TEST_F(AnnouncedChannel, ATextIsWaitedForWhileItsSenderIsAtIt) {
    start();
    tell_on_fixed_port("a stranger's");
    const CLIENT client(channel);
    client.send(word_of(channel) + "\nbeg");
    while (back_channel->data()->settled) {
        thr_msleep(1);
    }
    std::thread sender([&client] {
        thr_msleep(150);
        client.send("inning and end");
        client.shut_down_sending();
    });
    EXPECT_EQ(completed(), failure_with({"beginning and end"}));
    sender.join();
    EXPECT_GE(milliseconds, 100);
    EXPECT_LT(milliseconds, 490);
}

TEST_F(AnnouncedChannel, AConnectionWithoutTheWordIsBrokenOffAndListeningGoesOn) {
    start();
    const std::string word = word_of(channel);
    for (const std::string& said :
         {std::string(33, 'x'), word + " text", word.substr(1) + "\n ", "\n" + word,
          std::string(100000, 'y'), std::string("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")}) {
        const CLIENT stranger(channel);
        // One that is broken off while it sends sees it there.
        EXPECT_TRUE(!stranger.tries_to_send(said) || stranger.sees_break_off());
    }
    {
        const CLIENT silent(channel);
        silent.shut_down_sending();
        EXPECT_TRUE(silent.sees_break_off());
        const CLIENT without_a_text(channel);
        without_a_text.send(word + "\n");
        without_a_text.shut_down_sending();
        EXPECT_TRUE(without_a_text.sees_break_off());
    }
    EXPECT_EQ(thr_thread_is_running(*back_channel->thread()), 1);
    tell("own");
    EXPECT_EQ(completed(), failure_with({"own"}));
}

TEST_F(AnnouncedChannel, TheWordCannotBeGuessedByteByByte) {
    start();
    std::string beginning = word_of(channel).substr(0, 20);
    for (const char last : {beginning.back(), 'x'}) {
        beginning.back() = last;
        const CLIENT stranger(channel);
        stranger.send(beginning);
        thr_msleep(50);
        EXPECT_TRUE(stranger.tries_to_send("y"));
        thr_msleep(50);
        EXPECT_TRUE(stranger.tries_to_send("y")) << "broken off early";
    }
}

TEST_F(AnnouncedChannel, ThoseWhoSayNothingHoldNobodyUp) {
    start();
    std::vector<std::unique_ptr<CLIENT>> silent;
    for (std::size_t count = 0; count < 3 * announced_clients_limit; ++count) {
        silent.push_back(std::make_unique<CLIENT>(channel));
        ASSERT_TRUE(silent.back()->connected());
        if (count % 2 == 0) {
            silent.back()->tries_to_send("h");
        }
    }
    tell("own");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, ASenderIsNotDroppedForThoseWhoSayNothing) {
    start();
    const CLIENT sender(channel);
    sender.send(word_of(channel) + "\n");
    std::vector<std::unique_ptr<CLIENT>> silent;
    for (std::size_t count = 0; count < 2 * announced_clients_limit; ++count) {
        silent.push_back(std::make_unique<CLIENT>(channel));
    }
    // Dropped: the listener has come that far.
    EXPECT_TRUE(silent[0]->sees_break_off());
    sender.send("own");
    sender.shut_down_sending();
    EXPECT_TRUE(sender.sees_silent_end());
    EXPECT_EQ(completed(), failure_with({"own"}));
}

// ---- The setting.

TEST_F(AnnouncedChannel, AloneLeavesTheFixedPortAloneAndNothingOnEveryInterface) {
    start(PGM_PYTHON_REASONS::announced);
    EXPECT_TRUE(port_is_free());
    EXPECT_LE(count_of_listeners_on_every_interface(), 0);
    tell("own");
    EXPECT_EQ(completed(), failure_with({"own"}));
    EXPECT_LT(milliseconds, 90);
}

TEST_F(AnnouncedChannel, AloneIsWaitedForAsTheFixedPortIs) {
    start(PGM_PYTHON_REASONS::announced);
    EXPECT_EQ(completed(), failure_with({}));
    EXPECT_GE(milliseconds, 490);
    EXPECT_LT(milliseconds, 1500);
}

TEST_F(AnnouncedChannel, BesideTheFixedPortOnlyThatIsOnEveryInterface) {
    start();
    EXPECT_FALSE(port_is_free());
    const int listeners = count_of_listeners_on_every_interface();
    EXPECT_TRUE(listeners == 1 || listeners < 0) << listeners;
}

// ---- Scripts.

std::string reasons_module() {
    std::ifstream file(PGM_PYTHON_SOURCES
                       "/examples/installation/common/programmer/python/source/"
                       "pgm_python_reasons.py",
                       std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

const char refusing_script[] =
    "from pgm_python_reasons import Refusal, tells_reasons\n"
    "@tells_reasons\n"
    "def external_make_rim_function(name, number, unused, output):\n"
    "    raise Refusal('%s %s' % (name, number), '%s again' % name)\n";

class AnnouncingCalls : public testing::Test {
protected:
    AnnouncingCalls() {
        installation.common_script("python/source/pgm_python_reasons.py", reasons_module());
    }

    // Calls the script early, late and as a main program; each reports its failure with `reasons`.
    void expect_of_all_ways(const std::string& source, const std::vector<std::string>& reasons) {
        installation.common_script("python/rim_generator.pyc", source);
        installation.common_script("python/pgm_python_common_function.pyc", source);
        const std::string program = installation.folder().write("tool.py", source + main_part);
        const auto expect = [&](const std::string& failure) {
            REPORTS expected = {failure};
            for (const std::string& reason : reasons) {
                expected.push_back("error 20353: " + reason);
            }
            EXPECT_EQ(receiver.reports, expected);
            receiver.reports.clear();
            before.check();
        };
        PGM_PYTHON_MGR::generate_rim("in", "1", 1, "out");
        expect(
            "error 20351: Fail to execute function external_make_rim_function in file "
            "rim_generator");
        PGM_PYTHON_MGR::sync_p4file("in", "1");
        expect(
            "error 20351: Fail to execute function sync_p4file in file "
            "pgm_python_common_function");
        const char* argv[] = {program.c_str()};
        written_by([&] { PGM_PYTHON_MGR::run_python_file(1, argv); });
        expect("error 20354: Fail to execute file " + program);
    }

    const std::string main_part = "if __name__ == '__main__':\n    sync_p4file('in', '1')\n";
    const std::string ways =
        "def external_make_rim_function(*unused): act()\n"
        "def sync_p4file(*unused): act()\n";

    TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    NOTHING_LEFT_BEHIND before;
};

TEST_F(AnnouncingCalls, ShowTheReasonsOfTheModule) {
    const std::string source =
        "import pgm_python_reasons\n"
        "pgm_python_reasons.PORT = 1\n"
        "@pgm_python_reasons.tells_reasons\n"
        "def act(): raise pgm_python_reasons.Refusal('one\\ntwo', 'three')\n" +
        ways;
    expect_of_all_ways(source, {"one", "two", "three"});
}

TEST_F(AnnouncingCalls, ShowThemWhileAnotherProgramHoldsThePort) {
    installation.common_script("python/rim_generator.pyc", refusing_script);
    {
        const PORT_HOLDER holder;
        ASSERT_TRUE(holder.holds());
        PGM_PYTHON_MGR::generate_rim("in", "1", 1, "out");
    }
    ASSERT_EQ(receiver.reports.size(), 3U);
    EXPECT_EQ(receiver.reports[1], "error 20353: in 1");
    before.check();
}

TEST_F(AnnouncingCalls, ShowThemWithTheAnnouncedChannelAlone) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    offer_script_hooks();
    int calls = 0;
    on_script_signal = [&calls] {
        ++calls;
        EXPECT_TRUE(port_is_free());
        EXPECT_LE(count_of_listeners_on_every_interface(), 0);
    };
    const std::string source =
        "import test_hooks\n"
        "from pgm_python_reasons import Refusal, tells_reasons\n"
        "@tells_reasons\n"
        "def act():\n"
        "    test_hooks.signal()\n"
        "    raise Refusal('own')\n" +
        ways;
    {
        const ENVIRONMENT_VALUE setting("PGM_PYTHON_REASONS", "announced");
        expect_of_all_ways(source, {"own"});
    }
    PGM_PYTHON_SETTINGS::set_reasons(PGM_PYTHON_REASONS::announced);
    expect_of_all_ways(source, {"own"});
    PGM_PYTHON_SETTINGS::use_environment();
    EXPECT_EQ(calls, 6);
    on_script_signal = nullptr;
}

TEST_F(AnnouncingCalls, ShowTheReasonsOfAScriptThatKnowsOnlyThePort) {
    expect_of_all_ways(send_function +
                           std::string("def act():\n"
                                       "    send(b'one !@#$^&*() two')\n"
                                       "    raise ValueError\n") +
                           ways,
                       {"one", "two"});
}

TEST_F(AnnouncingCalls, NameTheChannelToProgramsThatTheScriptStarts) {
    const std::string source =
        "import os, subprocess, sys\n"
        "def act():\n"
        "    import socket\n"
        "    channel = os.environ['PGM_PYTHON_REASONS_CHANNEL']\n"
        "    if os.name == 'posix':\n"
        "        assert subprocess.call(['sh', '-c',\n"
        "            'test \"$PGM_PYTHON_REASONS_CHANNEL\" = \"$0\"', channel]) == 0\n"
        "    host, port, word = channel.split(':')\n"
        "    with socket.create_connection((host, int(port)), 5) as connection:\n"
        "        connection.sendall(word.encode() + b'\\nall as it should be')\n"
        "    raise ValueError\n" +
        ways;
    expect_of_all_ways(source, {"all as it should be"});
}

TEST_F(AnnouncingCalls, LeaveTheEnvironmentAsItWas) {
    const std::string source =
        "import os\n"
        "def act():\n"
        "    assert os.environ['PGM_PYTHON_REASONS_CHANNEL'] != 'the host\\'s'\n" +
        ways;
    installation.common_script("python/rim_generator.pyc", source);
    installation.common_script("python/pgm_python_common_function.pyc", source);
    for (const char* const value : {"the host's", static_cast<const char*>(nullptr)}) {
        const ENVIRONMENT_VALUE before_calls(reasons_channel_variable, value);
        EXPECT_TRUE(PGM_PYTHON_MGR::generate_rim("in", "1", 1, "out"));
        EXPECT_EQ(environment_value(reasons_channel_variable), value == nullptr ? "" : value);
        PGM_PYTHON_MGR::sync_p4file("in", "1");
        EXPECT_EQ(environment_value(reasons_channel_variable), value == nullptr ? "" : value);
    }
    // Whatever the script does with the entry.
    for (const std::string act :
         {"os.environ = {}", "os.environ['PGM_PYTHON_REASONS_CHANNEL'] = 'x'",
          "del os.environ['PGM_PYTHON_REASONS_CHANNEL']"}) {
        installation.common_script("python/rim_generator.pyc",
                                   "import os\ndef act(): " + act + "\n" + ways);
        EXPECT_TRUE(PGM_PYTHON_MGR::generate_rim("in", "1", 1, "out")) << act;
        EXPECT_EQ(environment_value(reasons_channel_variable), "") << act;
    }
}

TEST_F(AnnouncingCalls, HaveNoChannelWithoutAListener) {
    installation.common_script("python/pgm_python_common_function.pyc",
                               "import os\n"
                               "def get_username(user):\n"
                               "    return str('PGM_PYTHON_REASONS_CHANNEL' in os.environ)\n");
    EXPECT_EQ(PGM_PYTHON_MGR::get_username(""), "False");
}

TEST_F(AnnouncingCalls, OfTheNetworkFormatShowReasons) {
    installation.folder().write("common/programmernwfmt/nw.py",
                                "import sys\nsys.path.insert(0, '" + installation.common() +
                                    "/python/source')\n"
                                    "from pgm_python_reasons import Refusal, tells_reasons\n"
                                    "@tells_reasons\n"
                                    "def get_bram_chunks(*unused): raise Refusal('why')\n");
    unsigned long size = 0;
    PGM_PYTHON_MGR manager;
    written_by(
        [&] { manager.get_nwfmt_data("nw.py", "get_bram_chunks", "", {}, {}, "", {}, {}, size); });
    EXPECT_EQ(receiver.reports,
              (REPORTS{"error: Fail to call nwfmt function",
                       "error 20351: Fail to execute function get_bram_chunks in file nw",
                       "error 20353: why"}));
}

// ---- Strangers.

// Connect to the fixed port and to the channel of the call that is made, again and again.
class STRANGERS {
public:
    STRANGERS() {
        for (const auto act : {say_nothing, say_a_wrong_word, say_too_much, hold_on}) {
            m_threads.emplace_back([this, act] {
                while (!m_over) {
                    for (const std::string& channel : {fixed_port, called()}) {
                        if (!channel.empty()) {
                            const CLIENT client(channel);
                            m_connections += client.connected() ? 1 : 0;
                            if (client.connected()) {
                                act(client);
                            }
                        }
                    }
                    thr_msleep(2);
                }
            });
        }
    }
    ~STRANGERS() {
        m_over = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    STRANGERS(const STRANGERS&) = delete;
    STRANGERS& operator=(const STRANGERS&) = delete;

    void call(const std::string& channel) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_channel = channel;
    }

    // Waits for a number of further connections.
    void wait_for(int connections) const {
        const int wanted = m_connections + connections;
        while (m_connections < wanted) {
            thr_msleep(1);
        }
    }

private:
    const std::string fixed_port = "127.0.0.1:57343:";

    static void say_nothing(const CLIENT& client) { client.shut_down_sending(); }
    static void say_a_wrong_word(const CLIENT& client) {
        client.tries_to_send("00112233445566778899aabbccddeeff\na stranger's reason");
    }
    static void say_too_much(const CLIENT& client) {
        client.tries_to_send(std::string(1 << 20, '\n'));
    }
    static void hold_on(const CLIENT& /*client*/) { thr_msleep(30); }

    std::string called() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_channel;
    }

    std::mutex m_mutex;
    std::string m_channel;
    std::atomic<bool> m_over{false};
    std::atomic<int> m_connections{0};
    std::vector<std::thread> m_threads;
};

TEST(Strangers, OnBothPortsCostNoReason) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    constexpr int calls = 60;
    constexpr int connections = 12;
    const TEST_INSTALLATION installation;
    offer_script_hooks();
    installation.common_script("python/source/pgm_python_reasons.py", reasons_module());
    installation.common_script("python/rim_generator.pyc",
                               "import test_hooks\n"
                               "from pgm_python_reasons import Refusal, tells_reasons\n"
                               "@tells_reasons\n"
                               "def external_make_rim_function(name, number, *unused):\n"
                               "    test_hooks.signal()\n"
                               "    raise Refusal(name + number)\n");
    RECORDING_RECEIVER receiver;
    STRANGERS strangers;
    on_script_signal = [&] {
        strangers.call(environment_value(reasons_channel_variable));
        strangers.wait_for(connections);
    };
    int own = 0;
    for (int call = 0; call < calls; ++call) {
        receiver.reports.clear();
        PGM_PYTHON_MGR::generate_rim("own ", std::to_string(call), 1, "out");
        own += receiver.reports.size() == 2 &&
                       receiver.reports[1] == "error 20353: own " + std::to_string(call)
                   ? 1
                   : 0;
    }
    on_script_signal = nullptr;
    EXPECT_EQ(own, calls);
}

TEST(Strangers, OnBothPortsCostNoTime) {
    RECORDING_RECEIVER receiver;
    STRANGERS strangers;
    int too_long = 0;
    constexpr int calls = 60;
    for (int call = 0; call < calls; ++call) {
        receiver.reports.clear();
        BACK_CHANNEL back_channel;
        back_channel.start();
        strangers.call(back_channel.announced());
        strangers.wait_for(12);
        const bool success = call % 2 == 0;
        if (!success) {
            const CLIENT client(back_channel.announced());
            client.send(word_of(back_channel.announced()) + "\nown");
            client.shut_down_sending();
            EXPECT_TRUE(client.sees_silent_end());
        }
        const double time =
            milliseconds_of([&] { complete_python_call(success, back_channel, "f", "m"); });
        too_long += time > 90 ? 1 : 0;
        EXPECT_EQ(receiver.reports,
                  success ? REPORTS{}
                          : (REPORTS{"error 20351: Fail to execute function f in file m",
                                     "error 20353: own"}));
    }
    EXPECT_LE(too_long, 1);  // a machine may halt now and then
}

// ---- A child of a script.

TEST(ForkedChild, DoesNotKeepThePortsOfItsParentsCall) {
    const TEST_INSTALLATION installation;
    installation.common_script(
        "python/rim_generator.pyc",
        send_function + std::string("import os, time\n"
                                    "def external_make_rim_function(reason, forks, *unused):\n"
                                    "    if forks == 'forks' and os.fork() == 0:\n"
                                    "        time.sleep(4)\n"
                                    "        os._exit(0)\n"
                                    "    send(reason.encode())\n"
                                    "    raise ValueError\n"));
    if (!platform_can_fork()) {
        GTEST_SKIP() << "the platform has no fork";
    }
    RECORDING_RECEIVER receiver;
    PGM_PYTHON_MGR::generate_rim("first", "forks", 1, "out");
    EXPECT_TRUE(port_is_free());
    for (const char* const reason : {"second", "third"}) {
        PGM_PYTHON_MGR::generate_rim(reason, "no", 1, "out");
    }
    const std::string failure =
        "error 20351: Fail to execute function external_make_rim_function in file rim_generator";
    EXPECT_EQ(receiver.reports, (REPORTS{failure, "error 20353: first", failure,
                                         "error 20353: second", failure, "error 20353: third"}));
}

// ---- Programs at once.

// Lets four programs make failing calls at once, and adds up what they tell.
void expect_own_reasons(int calls, const char* setting) {
    constexpr int programs = 4;
    const TEST_INSTALLATION installation;
    installation.common_script("python/source/pgm_python_reasons.py", reasons_module());
    installation.common_script("python/rim_generator.pyc", refusing_script);
    const ENVIRONMENT_VALUE reasons("PGM_PYTHON_REASONS", setting);
    std::vector<PROGRAM_RESULT> results(programs);
    std::vector<std::thread> threads;
    for (int program = 0; program < programs; ++program) {
        threads.emplace_back([&, program] {
            results[static_cast<std::size_t>(program)] =
                run_program(PGM_PYTHON_PROGRAMS "/reasons_caller",
                            {"program" + std::to_string(program), std::to_string(calls)});
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const PROGRAM_RESULT& result : results) {
        EXPECT_EQ(result.output, "own " + std::to_string(calls) + ", other 0, none 0\n");
        EXPECT_EQ(result.errors, "");
        EXPECT_EQ(result.status, 0);
    }
}

TEST(ProgramsAtOnce, ShowTheirOwnReasonsOnly) {
    expect_own_reasons(25, "both");
}

TEST(ProgramsAtOnce, ShowTheirOwnReasonsOnlyOnTheAnnouncedChannelAlone) {
    expect_own_reasons(10, "announced");
}

TEST(Endurance, FourProgramsAtOnceShowTheirOwnReasonsInEveryOfTwoThousandCalls) {
    expect_own_reasons(500, "both");
}

// ---- Threads at once, with calls in workers.

// Keeps the reasons of the calls of each thread apart: each says where its own go.
class REASONS_OF_THREADS : public MSG_RECEIVER {
public:
    REASONS_OF_THREADS() : m_before(MSG_RECEIVER::set(this)) {}
    ~REASONS_OF_THREADS() override { MSG_RECEIVER::set(m_before); }

    void line(int /*type*/, const std::string& text) override { s_own->push_back("line " + text); }
    void post(unsigned long number, const std::string& text) override {
        if (number == 20353) {
            s_own->push_back(text);
        }
    }
    void internal_error(const INTERNAL_ERROR& error) override { throw error; }

    // Where those of the thread that says so go from now on.
    static void keep_in(REPORTS& own) { s_own = &own; }

private:
    // A plain pointer: MinGW-w64 may free what has a destructor before it runs at a thread's end.
    static thread_local REPORTS* s_own;

    MSG_RECEIVER* m_before;
};

thread_local REPORTS* REASONS_OF_THREADS::s_own = nullptr;

void expect_own_reasons_of_threads(int calls) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/source/pgm_python_reasons.py", reasons_module());
    installation.common_script("python/rim_generator.pyc", refusing_script);
    const ENVIRONMENT_VALUE kind("PGM_PYTHON_CALLS", "worker");
    const REASONS_OF_THREADS receiver;
    std::vector<int> own(4);
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < own.size(); ++thread) {
        threads.emplace_back([&own, thread, calls] {
            const std::string name = "thread" + std::to_string(thread);
            REPORTS reasons;
            REASONS_OF_THREADS::keep_in(reasons);
            for (int call = 0; call < calls; ++call) {
                const std::string number = std::to_string(call);
                reasons.clear();
                const bool made = PGM_PYTHON_MGR::generate_rim(name, number, 1, "out");
                own[thread] += !made && reasons == REPORTS{name + " " + number, name + " again"};
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(own, std::vector<int>(4, calls));
}

TEST(ThreadsAtOnce, ShowTheirOwnReasonsOnly) {
    expect_own_reasons_of_threads(25);
}

TEST(Endurance, FourThreadsAtOnceShowTheirOwnReasonsInEveryOfTwoThousandCalls) {
    expect_own_reasons_of_threads(500);
}

}  // namespace
