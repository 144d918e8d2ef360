#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/call_completion.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "tests/support.h"

namespace {

// A listener on its own, as an operation starts it.
class LISTENER {
public:
    LISTENER() {
        data.set_up = &m_latch;
        thread = thr_thread_create(listen_python_messages, &data, 0);
        m_latch.wait();
    }
    ~LISTENER() { thr_thread_terminate_and_possibly_crash(thread); }

    void wait() {
        thr_thread_wait(thread);
        thread = nullptr;
    }

    PGM_PYTHON_LISTENER_DATA data;
    THR_THREAD thread;

private:
    LISTENER_LATCH m_latch;
};

TEST(Listener, TheWireIsAsScriptsKnowIt) {
    EXPECT_STREQ(back_channel_service, "57343");
    EXPECT_STREQ(back_channel_node, "0.0.0.0");
    EXPECT_EQ(back_channel_limit, 2048U);
    EXPECT_STREQ(back_channel_delimiter, " !@#$^&*() ");
    EXPECT_EQ(std::string(back_channel_delimiter).size(), 11U);
}

TEST(Listener, TheTextOfAClientIsKept) {
    LISTENER listener;
    CLIENT().send("why it failed");
    listener.wait();
    EXPECT_TRUE(listener.data.received);
    EXPECT_EQ(listener.data.text, "why it failed");
}

TEST(Listener, ListensAtEveryAddressOfTheMachine) {
    LISTENER listener;
    const CLIENT client(0x7F010203);
    ASSERT_TRUE(client.connected());
    client.send("to 127.1.2.3");
    listener.wait();
    EXPECT_EQ(listener.data.text, "to 127.1.2.3");
}

TEST(Listener, AsManyClientsMayWaitAsTheSystemAllows) {
    const LISTENER listener;
    const BACKLOG found = backlog();
    if (found.listening < 0 || found.most < 0) {
        GTEST_SKIP() << "the platform does not tell";
    }
    EXPECT_GT(found.most, 1);
    EXPECT_EQ(found.listening, found.most);
}

TEST(Listener, EarlierTextIsReplaced) {
    LISTENER listener;
    listener.data.text = "old";
    CLIENT().send("new");
    listener.wait();
    EXPECT_EQ(listener.data.text, "new");
}

TEST(Listener, BytesAreKeptAsTheyAre) {
    const std::string bytes("\xFF\x00\xC3 !@#$^&*() \n\x80", 16);
    LISTENER listener;
    CLIENT().send(bytes);
    listener.wait();
    EXPECT_EQ(listener.data.text, bytes);
}

TEST(Listener, ALongerTextIsCutAt2048Bytes) {
    std::string sent;
    for (int index = 0; sent.size() < 3000; ++index) {
        sent += std::to_string(index) + ",";
    }
    LISTENER listener;
    CLIENT().send(sent);
    listener.wait();
    EXPECT_TRUE(listener.data.received);
    // Loopback hands over one send as one segment.
    EXPECT_EQ(listener.data.text, sent.substr(0, 2048));
}

TEST(Listener, AClientThatSaysNothingLeavesNoText) {
    LISTENER listener;
    std::make_unique<CLIENT>().reset();
    listener.wait();
    EXPECT_FALSE(listener.data.received);
    EXPECT_EQ(listener.data.text, "");
}

TEST(Listener, TheClientGetsNoReplyAndSeesTheEnd) {
    LISTENER listener;
    const CLIENT client;
    client.send("x");
    EXPECT_TRUE(client.sees_silent_end());
    listener.wait();
}

TEST(Listener, ASecondClientIsNotServed) {
    LISTENER listener;
    const CLIENT first;
    const CLIENT second;
    ASSERT_TRUE(second.connected());  // by the system, ahead of accept
    second.send("second");
    first.send("first");
    listener.wait();
    EXPECT_EQ(listener.data.text, "first");
    EXPECT_TRUE(port_is_free());
}

TEST(Listener, OneWaitingForAClientCanBeTerminated) {
    const NOTHING_LEFT_BEHIND before;
    {
        LISTENER listener;
        EXPECT_EQ(thr_thread_is_running(listener.thread), 1);
        EXPECT_FALSE(port_is_free());
    }
    before.check();
}

TEST(Listener, OneWaitingForAHungClientCanBeTerminated) {
    const NOTHING_LEFT_BEHIND before;
    {
        LISTENER listener;
        const CLIENT client;
        ASSERT_TRUE(client.connected());
        thr_msleep(50);
        EXPECT_EQ(thr_thread_is_running(listener.thread), 1);
        thr_thread_terminate_and_possibly_crash(listener.thread);
        listener.thread = nullptr;
        EXPECT_FALSE(listener.data.received);
    }
    before.check();
}

TEST(Listener, APortThatIsTakenEndsItAtOnceWithoutAReport) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    RECORDING_RECEIVER receiver;
    LISTENER listener;
    listener.wait();
    EXPECT_FALSE(listener.data.received);
    EXPECT_TRUE(receiver.reports.empty());
}

TEST(Listener, ItReturnsZeroOnEveryPath) {
    PGM_PYTHON_LISTENER_DATA data;
    {
        const PORT_HOLDER holder;
        EXPECT_EQ(listen_python_messages(&data), 0);
    }
    int result = -1;
    struct CALL {
        PGM_PYTHON_LISTENER_DATA data;
        LISTENER_LATCH latch;
        int* result;
    } call{{}, {}, &result};
    call.data.set_up = &call.latch;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            CALL& of_this_thread = *static_cast<CALL*>(argument);
            *of_this_thread.result = listen_python_messages(&of_this_thread.data);
            return 0;
        },
        &call, 0);
    call.latch.wait();
    CLIENT().send("x");
    thr_thread_wait(thread);
    EXPECT_EQ(result, 0);
}

TEST(Listener, WithoutARecordItIsAnInternalError) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] { listen_python_messages(nullptr); }),
              internal_error("handle != NULL", 237));
}

TEST(ListenerDeathTest, WithoutAReceiverAMissingRecordAborts) {
    EXPECT_DEATH(listen_python_messages(nullptr),
                 "internal error: handle != NULL \\[PGM_PYTHON, pgm/pgm_python/pgm_python_mgr, "
                 "line 237\\]\n");
}

TEST(BackChannel, OneThatWasNotStartedIsFree) {
    const BACK_CHANNEL back_channel;
    EXPECT_TRUE(port_is_free());
}

TEST(BackChannel, StartReturnsWhenTheListenerListens) {
    BACK_CHANNEL back_channel;
    back_channel.start();
    const auto start = std::chrono::steady_clock::now();
    const CLIENT client;
    EXPECT_TRUE(client.connected());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(BackChannel, OneThatIsNotCompletedLeavesNothingAndReportsNothing) {
    const NOTHING_LEFT_BEHIND before;
    RECORDING_RECEIVER receiver;
    {
        BACK_CHANNEL back_channel;
        back_channel.start();
        CLIENT().send("unheard");
    }
    EXPECT_TRUE(receiver.reports.empty());
    before.check();
}

TEST(BackChannel, WithoutAPortTheCallGoesOnWithoutReasons) {
    const PORT_HOLDER holder;
    ASSERT_TRUE(holder.holds());
    RECORDING_RECEIVER receiver;
    BACK_CHANNEL back_channel;
    back_channel.start();
    complete_python_call(false, back_channel, "f", "m");
    EXPECT_EQ(receiver.reports,
              std::vector<std::string>{"error 20351: Fail to execute function f in file m"});
}

}  // namespace
