#include "persist/token_file.h"

#include "core/state_json.h"
#include "persist/java_dialects.h"
#include "pro/pro_keys.h"

#include <sys/stat.h>

#include <stdexcept>

namespace vtoken {

StoredToken::StoredToken(std::string path) : path_(std::move(path)) {
    const std::string text = readTextFile(path_);
    nlohmann::json j;
    try {
        j = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& e) {
        throw std::invalid_argument(path_ + ": not JSON: " + e.what());
    }
    dialect_ = j.is_object() ? j.value("dialect", "") : "";
    try {
        if (dialect_ == "pro") {
            pro_ = std::make_unique<pro::ProCard>(pro::fromJsonText(text));
            const std::string file = path_;
            pro_->setOnChange([file](const pro::ProState& state) {
                writeFileAtomically(file, pro::toJsonText(state));
            });
        } else if (dialect_ == "r2") {
            r2_ = std::make_unique<r2::R2Card>(r2::fromJsonText(text));
            const std::string file = path_;
            r2_->setOnChange([file](const r2::R2State& state) {
                writeFileAtomically(file, r2::toJsonText(state));
            });
        } else if (javaDialect(dialect_)) {
            java_ = javacard::fromJsonText(text, dialect_, &loadApplet);
            const std::string file = path_, dialect = dialect_;
            java_->setOnChange([file, dialect](const javacard::JavaCard& card) {
                writeFileAtomically(file, javacard::toJsonText(card, dialect));
            });
        } else {
            throw std::invalid_argument("dialect: pro, r2 or a Java-card dialect (" +
                                        javaDialectNames() + ")");
        }
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(path_ + ": " + e.what());
    }
}

ICard& StoredToken::card() {
    if (pro_) return *pro_;
    if (java_) return *java_;
    return *r2_;
}

const Faults& StoredToken::faults() const {
    if (java_) return java_->faults();
    return pro_ ? pro_->state().faults : r2_->state().faults;
}

std::string StoredToken::describe() const {
    if (java_) return javacard::describe(*java_);
    if (pro_) return pro::describe(pro_->state()) + pro::describeKeys(pro_->state());
    return r2::describe(r2_->state());
}

void StoredToken::save() const {
    if (java_) {
        writeFileAtomically(path_, javacard::toJsonText(*java_, dialect_));
    } else if (pro_) {
        writeFileAtomically(path_, pro::toJsonText(pro_->state()));
    } else {
        writeFileAtomically(path_, r2::toJsonText(r2_->state()));
    }
}

void writeNewState(const std::string& path, const std::string& text, bool replace) {
    struct stat st {};
    if (!replace && ::stat(path.c_str(), &st) == 0)
        throw std::runtime_error(path + " exists (--force replaces it)");
    writeFileAtomically(path, text);
}

}  // namespace vtoken
