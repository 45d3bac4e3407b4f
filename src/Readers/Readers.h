// A one-time snapshot of the PC/SC readers and whether each holds a usable token.
#pragma once

#include <string>
#include <vector>

#include "krfs.h"
#include "libapdu/types.h"
#include "src/Object/Object.h"

class CReaders : public CObject<__tag_HReadersEnum, CReaders, eReadersEnum> {
public:
    struct SReader {
        std::string name;
        bool tokenPresent = false;
        TBytes atr;

        SReader() = default;
        SReader(const SReader&) = default;
        SReader& operator=(const SReader&) = default;
    };

    // Listed last in every snapshot, as PC/SC's reader-event pseudo-reader.
    static const char* const PnPNotification;

    CReaders();

    // Takes the snapshot. PC/SC failures arrive as 0x86E0 | low 16 bits.
    void Open();
    // Gives the entry at the cursor and advances; 0x00000103 past the end.
    void GetNext(__tag_ReaderInf* info);
    std::vector<SReader> GetReaders() const { return readers; }

    // A present card counts only without any of these state bits: ignore,
    // unknown, unavailable, empty, exclusive, mute.
    static constexpr unsigned long kNotUsableMask = 0x29D;
    static constexpr unsigned long kPresent = 0x20;
    static bool IsUsable(unsigned long eventState) {
        return (eventState & kPresent) != 0 && (eventState & kNotUsableMask) == 0;
    }

private:
    std::vector<std::string> _getReaderNames(long& context);
    void _getReadersStates(long& context);

    std::vector<SReader> readers;
    std::vector<SReader>::iterator cursor;
};
