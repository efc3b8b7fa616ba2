// Readers and a writer share a table through a read/write locker; a condition tells the main thread
// when all of them are done.
#include <cstdio>
#include <map>
#include <string>

#include <KivFramework/KivFramework.h>
#include <pthread.h>

using namespace KivFramework;

namespace {

struct shared_table {
    _kivRWLocker* locker = nullptr; // guards `entries`
    std::map<int, std::string> entries;

    pthread_mutex_t* mutex = nullptr; // guards `running`
    _posix_conditional_var* finished = nullptr;
    int running = 0;
};

void leave(shared_table* table) {
    KivProcesses::LockMutex(table->mutex);
    --table->running;
    KivProcesses::SignalConditional(table->finished);
    KivProcesses::UnlockMutex(table->mutex);
}

void* write_entries(void* block) {
    auto* table = static_cast<shared_table*>(KivProcesses::GetThreadData(block));
    for (int number = 0; number < 1000; ++number) {
        KivProcesses::LockWriteRWLocker(table->locker);
        table->entries[number] = "entry " + std::to_string(number);
        KivProcesses::UnlockRWLocker(table->locker);
    }
    leave(table);
    KivProcesses::EndThread(0, block);
    return nullptr;
}

void* count_entries(void* block) {
    auto* table = static_cast<shared_table*>(KivProcesses::GetThreadData(block));
    std::size_t seen = 0;
    while (seen < 1000) {
        KivProcesses::LockReadRWLocker(table->locker);
        seen = table->entries.size();
        KivProcesses::UnlockRWLocker(table->locker);
    }
    leave(table);
    KivProcesses::EndThread(static_cast<int>(seen), block);
    return nullptr;
}

} // namespace

int main() {
    InitializeLibrary(nullptr);
    shared_table table;
    table.locker = KivProcesses::CreateRWLocker(false);
    table.mutex = KivProcesses::CreateMutex();
    table.finished = KivProcesses::CreateConditional(&table.mutex);
    table.running = 3;

    kivThreadObj* writer = KivProcesses::SpawnThread(write_entries, &table);
    kivThreadObj* readers[] = {KivProcesses::SpawnThread(count_entries, &table),
                               KivProcesses::SpawnThread(count_entries, &table)};

    KivProcesses::LockMutex(table.mutex);
    while (table.running > 0) { // a wait may end without a signal
        KivProcesses::WaitConditional(table.finished);
    }
    KivProcesses::UnlockMutex(table.mutex);

    KivProcesses::JoinThread(writer);
    for (kivThreadObj* reader : readers) {
        std::printf("a reader saw %d entries\n", KivProcesses::JoinThread(reader));
    }

    KivProcesses::DestroyConditional(table.finished); // before its mutex
    KivProcesses::DestroyMutex(table.mutex);
    KivProcesses::DestroyRWLocker(table.locker);
    delete table.locker;
    ShutdownLibrary();
    return 0;
}
