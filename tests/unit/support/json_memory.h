// JSON values of the thread: how many it gives back, and what happens when there is no memory for
// one.
//
// A program that links json_memory.cpp answers the calls of json-c concerned itself.
#ifndef TESTS_JSON_MEMORY_H
#define TESTS_JSON_MEMORY_H

// While it lives there is no memory for one value of its kind: the next, or the one after `given`
// that are still given.
class JsonShortage {
  public:
    enum Kind { NONE, OBJECT, ARRAY, STRING, INT, TEXT };  // TEXT: of a serialisation

    explicit JsonShortage(Kind kind, int given = 0);
    ~JsonShortage();
    JsonShortage(const JsonShortage&) = delete;
    JsonShortage& operator=(const JsonShortage&) = delete;

    // Whether one was asked for, and not given.
    [[nodiscard]] bool has_struck() const;
};

// Counts what json_object_put() is given while it lives; null does not count.
class JsonReleases {
  public:
    JsonReleases();
    [[nodiscard]] int count() const;

  private:
    int before_;
};

#endif
