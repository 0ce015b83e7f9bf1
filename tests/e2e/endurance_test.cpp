// The whole program with much data, with many clients that vanish, and with Bluetooth calls that fail.
#include <future>
#include <iostream>
#include <thread>

#include "tests/e2e/session_fixture.h"

namespace {

using namespace e2e;
using Clock = std::chrono::steady_clock;

class Endurance : public Session {};

TEST_F(Endurance, EchoesAMegabyteWithoutLosingAByte) {
    const std::string sent = randomBytes(1 << 20);
    for (const char* mtu : {"20", "244"}) {
        SCOPED_TRACE(mtu);
        // So many credits that the program need not wait for new ones all the time.
        const std::string peripheral = R"("initial_credits": 1000, "regrant_at": 500, "tx_mtu": )";
        start(R"({"time_scale": 50, "peripherals": [{)" + peripheral + mtu + "}]}");
        connect();
        std::thread writer([&] { EXPECT_TRUE(data.send(sent)); });
        const std::string received = data.readBytes(sent.size(), 60s);
        writer.join();
        EXPECT_EQ(received.size(), sent.size());
        EXPECT_TRUE(received == sent);
        const std::string size = std::to_string(sent.size());
        EXPECT_TRUE(command("stats\n").starts_with("RX " + size + " bytes. TX " + size + " bytes."));
        data.close();
        shell.send("exit\n");
        expectCleanEnd();
        shell.close();
    }
}

// Runs a program of its own with clients that vanish at a random moment, one after the other. They say
// nothing before they close their pipes.
class VanishingClients {
  public:
    explicit VanishingClients(unsigned seed) : random_(seed) {
        program_ = std::make_unique<Program>(folder_.path(), kFast);
    }

    // Returns what went wrong; empty when nothing did.
    std::string run(int clients) {
        for (int number = 0; number < clients; ++number) {
            const std::chrono::milliseconds life(random_() % kLongestLife.count());
            const bool dataGoesFirst = random_() % 2 == 0;
            if (!runClient(Clock::now() + life, dataGoesFirst))
                return "client " + std::to_string(number) + " found no command pipe\n" + program_->output();
        }
        return lastClient();
    }

  private:
    // Twice as long as the set-up of a link takes.
    const std::chrono::milliseconds kLongestLife = hasRealBluetoothSide() ? 3000ms : 100ms;

    bool runClient(Clock::time_point end, bool dataGoesFirst) {
        PipeClient shell;
        PipeClient data;
        if (!shell.open(commandPipe(folder_.path()))) return false;
        const auto left = [&] { return std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()); };
        shell.send(kConnect);
        const bool linked = shell.readUntil("CONNECT TIO\r\n", left()).ends_with("CONNECT TIO\r\n");
        if (linked && data.tryOpen(dataPipe(folder_.path()))) {
            const std::string bytes = randomBytes(1000);
            while (left() > 0ms && data.send(bytes))
                data.readBytes(bytes.size(), left());
        }
        (dataGoesFirst ? data : shell).close();
        return true;
    }

    std::string lastClient() {
        PipeClient shell;
        PipeClient data;
        if (!shell.open(commandPipe(folder_.path()))) return "no command pipe\n" + program_->output();
        shell.send(kConnect);
        const std::string answer = shell.readUntil("CONNECT TIO\r\n");
        if (!answer.ends_with("OK\r\nCONNECT TIO\r\n")) return "no link: " + answer + program_->output();
        if (!data.open(dataPipe(folder_.path())) || !data.send("still here") ||
            data.readBytes(10) != "still here")
            return "no echo\n" + program_->output();
        shell.send("exit\n");
        if (program_->waitForExit() != 0) return "no clean end\n" + program_->output();
        const bool clean = !hasRealBluetoothSide() ||
                           program_->errors().find("provider: live objects 0\n") != std::string::npos;
        return clean ? "" : program_->errors();
    }

    const TemporaryFolder folder_;
    std::minstd_rand random_;
    std::unique_ptr<Program> program_;
};

TEST(Clients, MayVanishAtAnyMoment) {
    constexpr int kPrograms = 8;
    constexpr int kClients = 200;
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << std::endl;
    std::vector<std::future<std::string>> runs;
    for (unsigned i = 0; i < kPrograms; ++i) {
        runs.push_back(std::async(std::launch::async,
                                  [=] { return VanishingClients(seed + i).run(kClients / kPrograms); }));
    }
    for (auto& run : runs)
        EXPECT_EQ(run.get(), "");
}

TEST_F(Session, TellsOfACallThatFails) {
    enum class Where { anywhere, newer, older };
    using enum Where;
    struct Case {
        const char* peripheral;
        const char* line;  // the last one of the reply
        const char* logged;
        Where where = anywhere;
    };
    const Case cases[] = {
        {R"("faults": [{"on": "device", "do": "throw:0x80070490"}])", "ERROR EXP\r\n", "-2147023728"},
        {R"("faults": [{"on": "device", "do": "no-operation"}])", "ERROR TIO\r\n",
         "Could not get LE device!"},
        {R"("faults": [{"on": "device", "times": 2, "do": "null"}])", "ERROR TIO\r\n", "LE Device is NULL"},
        {R"("faults": [{"on": "device", "do": "error:0x8007048F"}])", "ERROR EXP\r\n",
         "BluetoothLEDevice> ( -2147023729:"},
        {R"("faults": [{"on": "device", "do": "cancel"}])", "ERROR EXP\r\n", "Cancel on op: "},
        {R"("faults": [{"on": "characteristics", "do": "throw:0x80070490"}])", "ERROR EXP\r\n",
         "-2147023728"},
        {R"("faults": [{"on": "subscribe:CRTX", "do": "unreachable"}])", "CONNECT TIO\r\n", "UNREACHABLE!"},
        {R"("faults": [{"on": "services", "do": "error:0x8007048F"}])", "ERROR EXP\r\n",
         "GattDeviceServicesResult> ( -2147023729:", newer},
        {R"("faults": [{"on": "session", "do": "throw:0x80070490"}])", "ERROR EXP\r\n", "-2147023728", newer},
        // The listing that would find the services is a call that an older system does not have.
        {R"("cached_services": [])", "ERROR EXP\r\n", "-2147467262", older},
        {R"("faults": [{"on": "pair", "do": "throw:0x80070490"}])", "ERROR EXP\r\n", "-2147023728", older},
        {R"("faults": [{"on": "pair", "do": "null"}])", "CONNECT TIO\r\n", "returned NULL status", older},
        {R"("pairing": {"kind": 4})", "CONNECT TIO\r\n", "ProvidePin", older},
        {R"("pairing": {"kind": 8})", "CONNECT TIO\r\n", "ConfirmPinMatch", older},
        {R"("pairing": {"kind": 16})", "CONNECT TIO\r\n", "handler rejected the pairing", older},
        {R"("pairing": {"custom": false})", "CONNECT TIO\r\n", "No customized connection possible!", older},
    };
    for (const Case& item : cases) {
        if (item.where == (runsOnOlderSystem() ? newer : older)) continue;
        SCOPED_TRACE(item.peripheral);
        start(R"({"time_scale": 50, "peripherals": [{)" + std::string(item.peripheral) + "}]}");
        shell.send(kConnect);
        const std::string reply = shell.readUntil(item.line);
        EXPECT_TRUE(reply.ends_with(item.line)) << reply << program->output();
        EXPECT_TRUE(program->waitForOutput(item.logged)) << program->output();
        shell.send("exit\n");
        expectCleanEnd();
        shell.close();
    }
}

}  // namespace
