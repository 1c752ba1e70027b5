"""Writes a file with all its faults in it, each behind lumd_mutant(NUMBER)."""

HEADER = """\
// lumd_mutant(n) tells whether fault n is the one that LUMD_MUTANT names; a byte of the file that
// LUMD_MUTANT_REACHED names notes that it was asked. No library call is made that a test replaces.
#if __cplusplus >= 202002L && !defined(LUMD_MUTANT_H)
#define LUMD_MUTANT_H
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <type_traits>

struct lumd_mutant_switch {
    int active = -1;
    unsigned char* reached = nullptr;
    lumd_mutant_switch() {
        for (char** one = environ; one != nullptr && *one != nullptr; ++one) {
            const std::string_view entry = *one;
            if (entry.starts_with("LUMD_MUTANT="))
                active = static_cast<int>(strtol(*one + 12, nullptr, 10));
            if (entry.starts_with("LUMD_MUTANT_REACHED="))
                record(*one + 20);
        }
    }
    void record(const char* path) {
        const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0);
        if (file < 0)
            return;
        const long at = syscall(SYS_mmap, 0, LUMD_MUTANTS, PROT_READ | PROT_WRITE, MAP_SHARED,
                                file, 0L);
        syscall(SYS_close, file);
        if (at != -1)
            reached = reinterpret_cast<unsigned char*>(at);
    }
};

inline bool lumd_mutant_asked(int number) {
    static const lumd_mutant_switch chosen;
    if (chosen.reached != nullptr)
        chosen.reached[number] = 1;
    return number == chosen.active;
}

constexpr bool lumd_mutant(int number) {
    return std::is_constant_evaluated() ? false : lumd_mutant_asked(number);
}

template <typename T>
constexpr T lumd_next(T value) {
    if constexpr (std::is_same_v<T, bool>)
        return !value;
    else
        return static_cast<T>(value + 1);
}
#endif
"""


class Group:
    """The faults of one range and the groups within it."""

    def __init__(self, begin, end):
        self.begin, self.end = begin, end
        self.faults = []
        self.inner = []


def grouped(faults):
    """The outermost groups, in order; faults whose ranges cross others are left out."""
    groups = {}
    for fault in faults:
        for begin, end in fault.ranges:
            groups.setdefault((begin, end), Group(begin, end)).faults.append(fault)
    top = Group(0, 1 << 60)
    stack = [top]
    for begin, end in sorted(groups, key=lambda place: (place[0], -place[1])):
        while begin >= stack[-1].end:
            stack.pop()
        if end <= stack[-1].end:
            stack[-1].inner.append(groups[begin, end])
            stack.append(groups[begin, end])
    return top.inner


class Schema:
    """The switched text of one file, and which faults stand where in it."""

    def __init__(self, text, faults):
        self.source = text
        self.text = bytearray()
        self.spans = []  # (begin, end, faults) in the switched text
        self.write(0, len(text), grouped(faults))

    def write(self, begin, end, groups):
        at = begin
        for group in groups:
            self.text += self.source[at:group.begin]
            start = len(self.text)
            self.write_group(group)
            self.spans.append((start, len(self.text), group.faults))
            at = group.end
        self.text += self.source[at:end]

    def put(self, text, *faults):
        start = len(self.text)
        self.text += text.encode()
        self.spans.append((start, len(self.text), list(faults)))

    def write_group(self, group):
        forms = {fault.form for fault in group.faults}
        first = group.faults[0]
        if "always" in forms:
            return self.put(first.code, first)
        if "declared" in forms:
            return self.put(f"; {first.switch} ? !{first.code} : "
                            f"static_cast<bool>({first.code})", first)
        if "statement" in forms:
            self.put(f"{{ if (!{first.switch}) ", first)
            self.write(group.begin, group.end, group.inner)
            self.text += b" }"
            return None
        cast = "void" if "void" in forms else ""
        self.text += b"("
        for fault in group.faults:
            code = fault.code
            if fault.form == "constant" and code.startswith("lumd_next("):
                code = f"lumd_next({self.source[group.begin:group.end].decode()})"
            self.put(f"{fault.switch} ? {cast}({code}) : ", fault)
        if "truth" in forms and not cast:
            cast = "static_cast<bool>"
        self.text += f"{cast}(".encode()
        self.write(group.begin, group.end, group.inner)
        self.text += b"))"
        return None

    def at(self, line, column):
        """The faults of the smallest switch around this place, of the whole line otherwise."""
        lines = self.text.split(b"\n")
        if line > len(lines):
            return []
        start = sum(len(one) + 1 for one in lines[:line - 1])
        place = start + column - 1
        around = [span for span in self.spans if span[0] <= place < span[1]]
        if around:
            return min(around, key=lambda span: span[1] - span[0])[2]
        end = start + len(lines[line - 1])
        return [fault for span in self.spans if span[0] < end and span[1] > start
                for fault in span[2]]


def broken(text, fault):
    """The file with this one fault, as a person would have written it."""
    after = f"({fault.after})" if fault.uses else fault.after
    for begin, end in sorted(fault.ranges, reverse=True):
        text = text[:begin] + after.encode() + text[end:]
    return text
