// RrmSession: an RRM worker on the Realtek driver of an AccessPoint, stepped by an input. hostapd
// is up; the service has accepted the access point and uses everything that it can.
#ifndef FUZZ_RRM_SESSION_H
#define FUZZ_RRM_SESSION_H

#include <string_view>

#include "rrm_worker.h"
#include "safe_queue.h"

class RrmSession {
  public:
    RrmSession();
    ~RrmSession();
    RrmSession(const RrmSession&) = delete;
    RrmSession& operator=(const RrmSession&) = delete;

    // A message that is taken in the next pass.
    void service_sends(std::string_view text);
    void bus_sends(std::string_view text);

    // One pass of the worker's loop; what it reports must be JSON texts.
    void pass();

    // The same with what stands around it: the worker looks whether the radio daemons live, and
    // connects anew once they do again.
    void turn();

    // Passes minutes later, so that every timer fires and a survey comes to its report.
    void let_time_pass();

  private:
    safe_queue from_websocket_;
    safe_queue to_websocket_;
    safe_queue from_ipc_;
    safe_queue to_ipc_;
    rrm_worker worker_;
    bool connected_ = true;
};

#endif
