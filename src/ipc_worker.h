// ipc_worker: moves messages between the local message bus and a pair of queues.
#ifndef LUMD_IPC_WORKER_H
#define LUMD_IPC_WORKER_H

#include <atomic>
#include <functional>
#include <vector>

#include "abstract_worker.h"
#include "ipc_module.h"
#include "owned.h"
#include "safe_queue.h"

// Looks at no message: what arrives for the module goes to `to_daemon` unchanged, what stands in
// `from_daemon` goes to PORTALMOD unchanged. The bus context belongs to the worker's thread.
// The broker wakes the worker by its event descriptor.
class ipc_worker : public abstract_worker {
  public:
    // Queues and flag are borrowed and outlive the worker.
    ipc_worker(safe_queue& to_daemon_queue, safe_queue& from_daemon_queue, ipc_module_t module,
               const volatile bool& running);
    ~ipc_worker() override;

    bool __connect() override;
    // One frame in, or else one message out. True when there was neither and the bus is still
    // there.
    bool execute() override;
    void __disconnect() override;
    bool condition(const volatile bool& running) override;

  private:
    // The unit tests look at steps that the bus does not show.
    friend class ipc_worker_peer;

    [[nodiscard]] bool send_next();
    void wake();
    void process_ipc_message(const message_s& frame);
    void hand_over();
    [[nodiscard]] ipc_module_t route_message(const buffer_info_t& buffer) const;
    void send_ipc_message(const buffer_info_t& buffer);
    void from_daemon_dequeue_cb(const buffer_info_ptr& buffer);

    msgbus_ptr ctx;  // null while not connected
    safe_queue& to_daemon;
    safe_queue& from_daemon;
    const ipc_module_t module_id;
    const std::function<void(const buffer_info_ptr&)> from_daemon_dequeue_cb_binded;
    std::vector<buffer_info_ptr> received;  // while more of the same piece is to come
    std::atomic<bool> woken = false;        // since the queue was last found empty
};

#endif
