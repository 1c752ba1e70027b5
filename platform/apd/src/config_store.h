// ConfigStore keeps the settings of the access point: one JSON tree, whose paths are those that the
// agent asks for.
//
// There are three layers. What is stored stands in a file and outlives everything. The candidate is
// what an operator has changed and not yet committed. What the service has set through the agent
// lies above what is stored until it is reset; it is kept in a second file, which is to outlive
// this process and not the machine's next start.
//
// Both files are replaced as a whole (write, fsync(2), rename(2)): a power failure leaves the old
// or the new one. A file that cannot be used leaves what was in force before. One thread at a time.
#ifndef PLATFORM_APD_CONFIG_STORE_H
#define PLATFORM_APD_CONFIG_STORE_H

#include <map>
#include <string>
#include <vector>

#include "json.h"

namespace apd {

class ConfigStore {
  public:
    // Whether a whole tree makes sense; the reason when it does not, otherwise empty.
    using Judge = std::string (*)(json_object* tree);

    struct Files {
        std::string stored;
        std::string service;    // empty: what the service has set is in memory alone
        std::string last_good;  // a copy of what was stored and usable last; empty: none
    };

    // Nothing is read yet.
    ConfigStore(Files files, Judge judge);

    // Reads the file of what is stored; the candidate is then the same. False, with one error line
    // and nothing changed, when it cannot be used. A file that is not there is an empty tree,
    // with one line.
    bool load();

    // The same from the copy of what was usable last; false also without one.
    bool load_last_good();

    // Reads what the service had set; what no longer fits is left out with one line.
    void load_service();

    // What is in force: what is stored and above it what the service has set. Null when nothing is
    // there. Borrowed until the next change.
    [[nodiscard]] json_object* get(const std::string& path) const;
    [[nodiscard]] json_object* running() const { return running_.get(); }
    [[nodiscard]] json_object* stored() const { return stored_.get(); }
    [[nodiscard]] json_object* candidate() const { return candidate_.get(); }

    // Puts a value, or without one takes away what stands there, in the candidate. The reason when
    // it is refused, otherwise empty.
    [[nodiscard]] std::string set(const std::string& path, Json value);

    // Makes the candidate what is stored. What the service has set at a path that this changes
    // gives way, and all that it has set for the radios where the rest does not go with what is
    // stored now, with one line. The reason when it is refused or cannot be written; then nothing
    // has changed.
    [[nodiscard]] std::string commit();

    // Forgets the candidate.
    void revert();

    // Paths at which the candidate differs from what is stored.
    [[nodiscard]] std::vector<std::string> changes() const;

    // Puts a value of the service's above what is stored.
    void set_service(const std::string& path, Json value);

    // Takes away what the service has set at this path and below it. Whether there was any.
    bool reset_service(const std::string& path);

    [[nodiscard]] json_object* service_value(const std::string& path) const;

  private:
    bool take(const std::string& file);
    void keep_copy() const;
    void rebuild();
    void fit_service();
    void save_service() const;

    const Files files_;
    const Judge judge_;
    Json stored_;
    Json candidate_;
    std::map<std::string, Json> service_;  // by path
    Json running_;                         // made of the two
};

}  // namespace apd

#endif
