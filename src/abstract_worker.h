// abstract_worker: the run loop, thread and wake-up descriptor that every worker shares.
#ifndef LUMD_ABSTRACT_WORKER_H
#define LUMD_ABSTRACT_WORKER_H

#include <string>
#include <thread>

// While its run flag is set a worker connects, executes as long as condition() holds, disconnects,
// pauses, and begins again. Everything but put_event() belongs to the worker's own thread or to
// the thread that made it. Not started: nothing runs. Started at most once.
class abstract_worker {
  public:
    // `worker_run_flag` is borrowed and outlives the worker. Delays in microseconds:
    // `worker_execute_delay` bounds the wait for a wake-up after an execute() that returned true
    // (0: no wait), `worker_external_loop_delay` is the pause before the next connect.
    abstract_worker(const volatile bool& worker_run_flag, std::string worker_name,
                    int worker_execute_delay, int worker_external_loop_delay);

    abstract_worker(const abstract_worker&) = delete;
    abstract_worker& operator=(const abstract_worker&) = delete;

    // Sets up what the worker talks to; true when it can run.
    virtual bool __connect() = 0;

    // One pass of work. True asks for a wait for a wake-up before the next pass, false asks for
    // the next pass at once. What escapes from here ends the process with status 255.
    virtual bool execute() = 0;

    // Tears down what a successful __connect() set up.
    virtual void __disconnect() = 0;

    // Whether to go on executing.
    virtual bool condition(const volatile bool& flag) = 0;

    // Joins the thread. The destructor of a class whose operations the thread may still be calling
    // joins first itself, before its own members go.
    virtual ~abstract_worker();

    // The run loop; returns when the run flag is clear.
    void func();

    // Runs the loop on a thread of its own. When none is to be had, the process ends with status
    // 255; std::terminate() answers a second start.
    void start_on_dedicated_thread();

    // Runs the loop on the calling thread.
    void start_on_current_thread();

    // Waits for the dedicated thread to end; nothing without one.
    void join();

    // Wakes the worker out of its wait. Any thread; several calls between two waits wake it once.
    void put_event() const;

  protected:
    // Asks __connect(), and remembers whether a __disconnect() is owed from then on.
    bool connect();

    // Calls __disconnect() when it is owed.
    void disconnect();

    // Waits up to `timeout_ms` for put_event(). -1 without a descriptor; the result of poll(2)
    // when it failed or timed out; else the result of the read(2) that emptied the counter.
    int process_eventfd(int timeout_ms) const;

    // What put_event() writes to, for one who wakes the worker from another process; -1 without.
    [[nodiscard]] int event_descriptor() const { return eventfd; }

    [[nodiscard]] const std::string& worker_label() const { return name; }
    [[nodiscard]] bool is_running() const { return run_flag; }

    bool can_run = false;  // the current connection is usable

  private:
    // One execute() and the wait that it asked for.
    void run_pass();
    bool guarded_execute();

    std::thread th;
    const volatile bool& run_flag;
    const std::string name;
    const int execute_delay;        // microseconds
    const int external_loop_delay;  // microseconds
    volatile bool started = false;
    volatile bool connected = false;
    int eventfd;
};

#endif
