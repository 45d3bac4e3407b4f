#include "libapdu/applet.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "libapdu/exception.h"
#include "libapdu/token.h"
#include "src/krfs/barrier.h"

namespace {

using namespace libapdu;

struct StubCall {
    std::string name;
    std::function<void()> call;
};

std::vector<StubCall> everyStubOperation() {
    TBytes data{1, 2};
    TBytes out;
    return {
        {"fs.select", [] { IAppFS::stub.select({0x3F00}); }},
        {"fs.create", [] { IAppFS::stub.create(1, CFileInfo()); }},
        {"fs.remove", [] { IAppFS::stub.remove(); }},
        {"fs.info", [] { IAppFS::stub.info(); }},
        {"fs.list", [] { IAppFS::stub.list(1); }},
        {"fs.read",
         [] {
             TBytes b(4);
             IAppFS::stub.read(b, 0);
         }},
        {"fs.write", [=] { IAppFS::stub.write(data, 0); }},
        {"pin.select", [] { IAppPin::stub.select({}); }},
        {"pin.login", [=] { IAppPin::stub.login(data); }},
        {"pin.change", [=] { IAppPin::stub.change(data); }},
        {"pin.unblock", [=] { IAppPin::stub.unblock(data); }},
        {"pin.logout", [] { IAppPin::stub.logout(); }},
        {"pin.info", [] { IAppPin::stub.info(); }},
        {"pin.pathUser", [] { IAppPin::stub.pathUser(); }},
        {"pin.pathAdmin", [] { IAppPin::stub.pathAdmin(); }},
        {"pin.pathGlobal", [] { IAppPin::stub.pathGlobal(); }},
        {"pin.encoding", [] { IAppPin::stub.encoding(); }},
        {"info.rnd", [] { IAppInfo::stub.rnd(8); }},
        {"info.isFips", [] { IAppInfo::stub.isFips(); }},
        {"info.version", [] { IAppInfo::stub.version(0); }},
        {"info.id", [] { IAppInfo::stub.id(1); }},
        {"info.color", [] { IAppInfo::stub.color(); }},
        {"info.memoryFree", [] { IAppInfo::stub.memoryFree(); }},
        {"info.memoryTotal", [] { IAppInfo::stub.memoryTotal(); }},
        {"info.value", [] { IAppInfo::stub.value(2); }},
        {"label.read", [] { IAppLabel::stub.read(); }},
        {"label.write", [=] { IAppLabel::stub.write(data); }},
        {"label.encoding", [] { IAppLabel::stub.encoding(); }},
        {"crypto.select", [] { IAppCrypto::stub.select({}); }},
        {"crypto.create", [] { IAppCrypto::stub.create(CCryptoInfo()); }},
        {"crypto.remove", [] { IAppCrypto::stub.remove(); }},
        {"crypto.info", [] { IAppCrypto::stub.info(); }},
        {"crypto.list", [] { IAppCrypto::stub.list(0x1001); }},
        {"crypto.encrypt", [=] { IAppCrypto::stub.encrypt(data); }},
        {"crypto.decrypt", [=] { IAppCrypto::stub.decrypt(data); }},
        {"crypto.provider", [] { IAppCrypto::stub.provider(0x1001); }},
        {"pack.sm",
         [=]() mutable {
             IAppPack p;
             p.sm(data, out);
         }},
        {"pack.chain",
         [=]() mutable {
             IAppPack p;
             p.chain(data, out);
         }},
        {"pack.keyGet",
         [] {
             IAppPack p;
             p.keyGet(0);
         }},
        {"pack.keyClear",
         [] {
             IAppPack p;
             p.keyClear();
         }},
        {"pack.keySet",
         [=] {
             IAppPack p;
             p.keySet(0, data);
         }},
        {"pack.keySave",
         [] {
             IAppPack p;
             p.keySave();
         }},
        {"pack.keyRestore",
         [] {
             IAppPack p;
             p.keyRestore();
         }},
        {"bio.select",
         [] {
             IAppBio b;
             b.select({});
         }},
        {"bio.loginType",
         [] {
             IAppBio b;
             b.loginType();
         }},
        {"bio.getEnrolledFingers",
         [] {
             IAppBio b;
             b.getEnrolledFingers();
         }},
        {"bio.readPublicBioData",
         [] {
             IAppBio b;
             b.readPublicBioData(1);
         }},
        {"bio.appletMoC",
         [=] {
             IAppBio b;
             b.appletMoC(data, 1);
         }},
        {"bio.loginByTicket",
         [=] {
             IAppBio b;
             b.loginByTicket(data);
         }},
    };
}

TEST(AppletFrame, EveryStubOperationFailsWithFaceThroughTheBarrier) {
    for (const StubCall& c : everyStubOperation())
        EXPECT_EQ(krfs::Guard(c.call), 0x86E0FACEL) << c.name;
}

TEST(AppletFrame, PlainAppletHoldsStubsAndAdapterDoesNotFail) {
    IApplet applet;
    CAdapter a;
    EXPECT_EQ(krfs::Guard([&] { a = AppletToAdapter(&applet); }), 0);
    EXPECT_EQ(a.fs, applet.fs());
    EXPECT_EQ(a.lic, applet.lic());
    EXPECT_NE(a.fs, &IAppFS::stub) << "the applet's own plain objects, not the statics";
    EXPECT_EQ(krfs::Guard([&] { a.fs->select({0x3F00}); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([&] { applet.pack()->keyGet(0); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([&] { applet.bio()->loginType(); }), 0x86E0FACEL);
}

TEST(AppletFrame, DefaultAdapterPointsAtStaticStubs) {
    CAdapter a;
    EXPECT_EQ(a.fs, &IAppFS::stub);
    EXPECT_EQ(a.pin, &IAppPin::stub);
    EXPECT_EQ(a.info, &IAppInfo::stub);
    EXPECT_EQ(a.crypto, &IAppCrypto::stub);
    EXPECT_EQ(a.label, &IAppLabel::stub);
    EXPECT_EQ(a.lic, &IAppLic::stub);
    EXPECT_EQ(krfs::Guard([&] { a.info->id(1); }), 0x86E0FACEL);
}

TEST(AppletFrame, AppletWithoutSenderFailsCleanly) {
    IApplet applet;
    TBytes r(2);
    EXPECT_EQ(krfs::Guard([&] { applet.sender(); }), 0x86E0FACEL);
    EXPECT_EQ(krfs::Guard([&] { applet.send({0x00, 0xA4, 0x00, 0x00}, r); }), 0x86E0FACEL);
}

// A sender that answers one fixed response, to check the plumbing.
struct FixedSender : ISender {
    TBytes answer;
    TBytes last;
    void send(const TBytes& c, TBytes& r) override {
        last = c;
        r = answer;
    }
    TBytes atr() override { return {}; }
};

TEST(AppletFrame, PlumbingSendsAndChecksThroughTheErrorObject) {
    FixedSender s;
    s.answer = {0xAA, 0x90, 0x00};
    IApplet applet(&s);
    TBytes r(258);
    applet.send({0x00, 0xB0, 0x00, 0x00, 0x01}, r);
    EXPECT_EQ(s.last, (TBytes{0x00, 0xB0, 0x00, 0x00, 0x01}));
    EXPECT_EQ(applet.extractSW(r), 0x9000);
    EXPECT_EQ(krfs::Guard([&] { applet.checkSW(r); }), 0);
    EXPECT_EQ(krfs::Guard([&] { applet.checkSW(TBytes{0x90}); }), 0x86E0FFFFL)
        << "a response shorter than a status word is the unknown word 0";
    EXPECT_EQ(krfs::Guard([&] { s.control(0x42, {}, r); }), 0x86E0FACEL)
        << "a sender without a control channel";
}

// A token whose interfaces are counted, to check TokenToAdapter's wiring.
struct PlainToken : IToken {
    IApplet applet;
    bool checkIfExist(unsigned short) override { return false; }
    void selectApplet(unsigned short) override {}
    void switchToApplet(unsigned short) override {}
    void switchToFileSystem(unsigned short) override {}
    IAppFS* fs() override { return applet.fs(); }
    IAppPin* pin() override { return applet.pin(); }
    IAppInfo* info() override { return applet.info(); }
    IAppLabel* label() override { return applet.label(); }
    IAppCrypto* crypto() override { return applet.crypto(); }
    IAppLic* lic() override { return applet.lic(); }
    IAppBio* bio() override { return applet.bio(); }
};

TEST(AppletFrame, TokenToAdapterTakesTheCurrentAppletsInterfaces) {
    PlainToken t;
    CAdapter a = TokenToAdapter(&t);
    EXPECT_EQ(a.fs, t.applet.fs());
    EXPECT_EQ(a.pin, t.applet.pin());
    EXPECT_EQ(a.info, t.applet.info());
    EXPECT_EQ(a.crypto, t.applet.crypto());
    EXPECT_EQ(a.label, t.applet.label());
    EXPECT_EQ(a.lic, t.applet.lic());
}

}  // namespace
