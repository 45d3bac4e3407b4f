// The applet frame: stubs that fail with 0xFACE, adapters, and the plumbing.
#include "libapdu/applet.h"

#include <gtest/gtest.h>

#include <functional>

#include "src/krfs/barrier.h"
#include "unit/scripted_sender.h"

namespace {

using namespace krfs_test;

TEST(AppletFrame, StubsFailWithFaceAndThePlumbingChecksThroughTheErrorObject) {
    TBytes data{1, 2}, buffer(4);
    IApplet plain;  // plain objects of its own, not the statics
    const CAdapter stubs, adapter = AppletToAdapter(&plain);
    EXPECT_EQ(stubs.fs, &IAppFS::stub);
    EXPECT_EQ(stubs.lic, &IAppLic::stub);
    EXPECT_EQ(adapter.fs, plain.fs());
    EXPECT_NE(adapter.fs, stubs.fs);
    const std::function<void()> calls[] = {
        [&] { stubs.fs->read(buffer, 0); }, [&] { adapter.fs->list(1); },
        [&] { stubs.pin->pathUser(); },     [&] { adapter.pin->login(data); },
        [&] { stubs.info->id(1); },         [&] { adapter.info->isFips(); },
        [&] { stubs.label->read(); },       [&] { stubs.crypto->encrypt(data); },
        [&] { plain.pack()->keyGet(0); },   [&] { plain.pack()->sm(data, buffer); },
        [&] { plain.bio()->loginType(); },  [&] { plain.send(data, buffer); },  // no sender
    };
    for (const auto& call : calls)
        EXPECT_EQ(krfs::Guard(call), 0x86E0FACEL) << "call " << &call - calls;

    ScriptedSender sender;
    IApplet applet(&sender);
    sender.expect("00 B0 00 00 01", "AA 90 00");
    TBytes r(258);
    applet.send(hex("00 B0 00 00 01"), r);
    EXPECT_EQ(applet.extractSW(r), 0x9000);
    EXPECT_EQ(krfs::Guard([&] { applet.checkSW(r); }), 0);
    EXPECT_EQ(krfs::Guard([&] { applet.checkSW(hex("90")); }), 0x86E0FFFFL) << "no status word";
    struct WithoutControl : ISender {
        void send(const TBytes&, TBytes&) override {}
        TBytes atr() override { return {}; }
    } bare;
    EXPECT_EQ(krfs::Guard([&] { bare.control(0x42, {}, r); }), 0x86E0FACEL);
}

}  // namespace
