// thread_execution.cpp: the list of running transfers.
#include "ipc/thread_execution.h"
#include "platform/kernel.h"
#include "platform/made_once.h"
#include <new>

using namespace platform;

struct ExecutionNode {
    uint64_t               ullExecution;
    uint32_t               bCancel;
    std::atomic<uint32_t> *pExternalFlag; // null: none
    ExecutionNode         *pPrevious;
    ExecutionNode         *pNext;
};

// All under the list's lock.
static bool           g_bListOpen;
static ExecutionNode *g_pFirstNode;
static ExecutionNode *g_pLastNode;

static CRITICAL_SECTION  g_csList;
static CRITICAL_SECTION *ListLock()
{
    return MadeOnce<&g_csList>();
}

// [list lock held] A closed list has no nodes.
static ExecutionNode *FindNode(uint64_t ullExecution)
{
    for (ExecutionNode *pNode = g_pFirstNode; pNode != nullptr; pNode = pNode->pNext) {
        if (pNode->ullExecution == ullExecution) return pNode;
    }
    return nullptr;
}

void InitThreadExecutionList()
{
    EnterCriticalSection(ListLock());
    g_bListOpen = true;
    LeaveCriticalSection(ListLock());
}

void DeleteThreadExecutionList()
{
    EnterCriticalSection(ListLock());
    g_bListOpen          = false;
    ExecutionNode *pNode = g_pFirstNode;
    g_pFirstNode         = nullptr;
    g_pLastNode          = nullptr;
    LeaveCriticalSection(ListLock());
    while (pNode != nullptr) {
        ExecutionNode *pNext = pNode->pNext;
        delete pNode;
        pNode = pNext;
    }
}

uint64_t AddThreadExecution()
{
    uint64_t ullExecution = 0;
    EnterCriticalSection(ListLock());
    if (g_bListOpen) {
        ullExecution = GetTickCount64();
        // One pass is enough: nodes that began earlier have smaller numbers, except within one tick after a removal,
        // where two may share theirs; both are then cancelled, and each of the two removals takes one.
        for (ExecutionNode *pNode = g_pFirstNode; pNode != nullptr; pNode = pNode->pNext) {
            if (pNode->ullExecution == ullExecution) ullExecution++;
        }
        // Without a node the transfer runs all the same, it only cannot be cancelled: better than no transfer.
        auto *pNew = new (std::nothrow) ExecutionNode{ullExecution, 0, nullptr, g_pLastNode, nullptr};
        if (pNew != nullptr) {
            if (g_pLastNode != nullptr) g_pLastNode->pNext = pNew;
            else g_pFirstNode = pNew;
            g_pLastNode = pNew;
        }
    }
    LeaveCriticalSection(ListLock());
    return ullExecution;
}

int32_t IsThreadExecutionCancel(uint64_t ullExecution)
{
    EnterCriticalSection(ListLock());
    const ExecutionNode *pNode   = FindNode(ullExecution);
    const int32_t        bCancel = pNode != nullptr && pNode->bCancel == 1;
    LeaveCriticalSection(ListLock());
    return bCancel;
}

int32_t RemoveThreadExecution(uint64_t ullExecution)
{
    EnterCriticalSection(ListLock());
    ExecutionNode *pNode = FindNode(ullExecution);
    if (pNode != nullptr) {
        if (pNode->pPrevious != nullptr) pNode->pPrevious->pNext = pNode->pNext;
        else g_pFirstNode = pNode->pNext;
        if (pNode->pNext != nullptr) pNode->pNext->pPrevious = pNode->pPrevious;
        else g_pLastNode = pNode->pPrevious;
    }
    LeaveCriticalSection(ListLock());
    const int32_t bFound = pNode != nullptr;
    delete pNode;
    return bFound;
}

int32_t CancelAllThreadExecutions()
{
    EnterCriticalSection(ListLock());
    const int32_t bAny = g_pFirstNode != nullptr;
    for (ExecutionNode *pNode = g_pFirstNode; pNode != nullptr; pNode = pNode->pNext) {
        pNode->bCancel = 1;
        if (pNode->pExternalFlag != nullptr) *pNode->pExternalFlag = 1;
    }
    LeaveCriticalSection(ListLock());
    return bAny;
}

int32_t IsThreadExecutionListEmpty()
{
    EnterCriticalSection(ListLock());
    const int32_t bEmpty = g_pFirstNode == nullptr;
    LeaveCriticalSection(ListLock());
    return bEmpty;
}

int32_t SetThreadExecutionFlag(uint64_t ullExecution, std::atomic<uint32_t> *pFlag)
{
    EnterCriticalSection(ListLock());
    ExecutionNode *pNode = FindNode(ullExecution);
    if (pNode != nullptr) pNode->pExternalFlag = pFlag;
    LeaveCriticalSection(ListLock());
    return pNode != nullptr;
}
