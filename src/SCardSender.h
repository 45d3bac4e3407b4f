// The PC/SC sender: a shared-mode connection that knows one recovery, the
// reconnect after a card reset.
#pragma once

#include <string>

#include "aichar.h"
#include "libapdu/sender.h"

class CSCardSender : public libapdu::ISender {
public:
    CSCardSender(const std::string& reader, unsigned long protocols, unsigned long scope);
    ~CSCardSender() override;

    void send(const TBytes& command, TBytes& response) override;
    TBytes atr() override;
    void control(unsigned int code, const TBytes& input, TBytes& output) override;

    // Begin and end a PC/SC transaction; failures go unnoticed but for a
    // reconnect that fails.
    virtual void lock();
    virtual void unlock();

    // Disconnects; later calls fail in PC/SC.
    void ReleaseResources();

protected:
    void InitResources();
    // Reconnects after SCARD_W_RESET_CARD; returns `result` as it came in.
    long HandleSCardErrors(long result);

private:
    aistring reader;
    long context;
    unsigned long scope;
    long card;
    unsigned long protocol;
};
