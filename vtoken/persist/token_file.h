// A token kept in a state file: loads the card model of its dialect and
// saves it again after each command that changes it.
#pragma once

#include "core/card.h"
#include "core/faults.h"
#include "javacard/javacard.h"
#include "pro/pro_card.h"
#include "r2/r2_card.h"

#include <memory>
#include <string>

namespace vtoken {

class StoredToken {
public:
    // Throws std::runtime_error if the file cannot be read, and
    // std::invalid_argument if it holds no valid state.
    explicit StoredToken(std::string path);

    ICard& card();
    const std::string& dialect() const { return dialect_; }
    const std::string& path() const { return path_; }
    // The knobs the file asks for.
    const Faults& faults() const;
    // The developer's view of `krfs-vtoken show`.
    std::string describe() const;
    // Writes the state back, for changes made beside the card's commands.
    void save() const;

    // The model behind card(), or null for another dialect.
    pro::ProCard* pro() { return pro_.get(); }
    r2::R2Card* r2() { return r2_.get(); }
    // The card of a Java-card dialect (gost, datastore, ...).
    javacard::JavaCard* java() { return java_.get(); }

private:
    std::string path_;
    std::string dialect_;
    std::unique_ptr<pro::ProCard> pro_;
    std::unique_ptr<r2::R2Card> r2_;
    std::unique_ptr<javacard::JavaCard> java_;
};

// Writes a fresh state; refuses to replace an existing file unless `replace`.
// Throws std::runtime_error.
void writeNewState(const std::string& path, const std::string& text, bool replace);

}  // namespace vtoken
