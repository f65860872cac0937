// thread_execution.h: the list of running transfers, by which a service request or shut-down cancels them.
// Lock     the list's own critical section, entered and left inside each call; nothing else is called under it. It is
//          made on first use and never deleted: deleting the list closes it for use under that lock, so that a worker
//          which outlives shut-down finds a closed list, not a freed lock.
// Threads  any. Before InitThreadExecutionList and after DeleteThreadExecutionList every operation does nothing and
//          gives 0 (IsThreadExecutionListEmpty gives 1).
#pragma once
#include <atomic>
#include <cstdint>

void InitThreadExecutionList();   // main thread, once; no effect on a list that is open
void DeleteThreadExecutionList(); // main thread: frees every remaining node

// The id of a new node at the list's end: the tick count (ms), or the next number that the nodes before leave free.
// When the node cannot be allocated the id is returned without one: later tests find nothing.
uint64_t AddThreadExecution();
// 1 when a node with that id exists and is cancelled, else 0 (also for id 0).
int32_t IsThreadExecutionCancel(uint64_t ullExecution);
// 1 when found, else 0.
int32_t RemoveThreadExecution(uint64_t ullExecution);
// Also sets the external flag of nodes that have one. 1 when the list was not empty.
int32_t CancelAllThreadExecutions();
int32_t IsThreadExecutionListEmpty();
// Ties a flag of the caller's to a node (null unties); it must outlive the node. 1 when the node was found.
int32_t SetThreadExecutionFlag(uint64_t ullExecution, std::atomic<uint32_t> *pFlag);
