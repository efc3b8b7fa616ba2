// The rules of the process tree, one after the other, on plain values. Slow on purpose: the list is
// walked for every node.
#pragma once

#include <string>
#include <vector>

namespace kiv_oracle {

struct listed_process {
    std::string name;
    int pid;
    int ppid;
};

/// The tree as text: name(pid,ppid), then the slots of the array of children in brackets, with "-"
/// for a null slot. Nothing in brackets follows a node without an array. "-" for no node at all.
inline std::string tree_text(int pid, const std::vector<listed_process>& list, int depth) {
    if (depth >= 21) {
        return "-";
    }
    int children = 0;
    const listed_process* node = nullptr;
    for (const listed_process& entry : list) {
        if (pid > 0 && entry.ppid == pid) {
            ++children;
        }
        if (entry.pid == pid) {
            node = &entry;
        }
    }
    if (node == nullptr) {
        return "-";
    }
    std::string text =
        node->name + "(" + std::to_string(node->pid) + "," + std::to_string(node->ppid) + ")";
    if (children == 0) {
        return text;
    }
    text += "[";
    for (const listed_process& entry : list) {
        if (entry.ppid == pid) {
            text += tree_text(entry.pid, list, depth + 1);
        }
    }
    return text + "]";
}

} // namespace kiv_oracle
