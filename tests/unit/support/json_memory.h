// JsonShortage: no memory for the next JSON object or array that the thread makes.
//
// A program that links json_memory.cpp answers json-c's two constructors itself.
#ifndef TESTS_JSON_MEMORY_H
#define TESTS_JSON_MEMORY_H

class JsonShortage {
  public:
    enum Kind { NONE, OBJECT, ARRAY };

    explicit JsonShortage(Kind kind);
    ~JsonShortage();
    JsonShortage(const JsonShortage&) = delete;
    JsonShortage& operator=(const JsonShortage&) = delete;

    // Whether one was asked for, and not given.
    [[nodiscard]] bool has_struck() const;
};

#endif
