#include "rudp/RUdpTIDMap.h"

#include <algorithm>
#include <new>

namespace {

const uint32_t MAX_GROW_BY = 65536;  // a chunk's size in bytes fits 32 bits

}  // namespace

// ---- pool ----

CRUdpTIDMap::Node::NodeManager::NodeManager(Node* nodes, unsigned int count, unsigned int growBy)
    : m_nGrowBy(growBy) {
    for (unsigned int i = 0; i < count; ++i) {
        ReleaseNode(nodes + i);
    }
}

CRUdpTIDMap::Node::NodeManager::~NodeManager() {
    while (m_pChunks != nullptr) {
        NodeChunk* const chunk = m_pChunks;
        m_pChunks = chunk->m_pNext;
        delete[] chunk->m_pNodes;
        delete chunk;
    }
}

CRUdpTIDMap::Node* CRUdpTIDMap::Node::NodeManager::GetFreeNode() {
    if (m_pFree == nullptr) {
        return m_nGrowBy == 0 ? nullptr : Grow();
    }
    Node* const node = m_pFree;
    m_pFree = node->m_pNext;
    return node;
}

// Allocates a chunk, puts all nodes but the first into the free list and returns the first.
CRUdpTIDMap::Node* CRUdpTIDMap::Node::NodeManager::Grow() {
    const uint32_t count = std::min(m_nGrowBy, MAX_GROW_BY);
    Node* const nodes = new (std::nothrow) Node[count];
    // Kept in m_pChunks. cppcheck does not know new (std::nothrow).
    // cppcheck-suppress [unreadVariable, unusedAllocatedMemory]
    NodeChunk* const chunk = new (std::nothrow) NodeChunk{nodes, m_pChunks};
    if (nodes == nullptr || chunk == nullptr) {
        delete[] nodes;
        delete chunk;
        return nullptr;
    }
    m_pChunks = chunk;
    for (uint32_t i = 1; i < count; ++i) {
        ReleaseNode(nodes + i);
    }
    return nodes;
}

void CRUdpTIDMap::Node::NodeManager::ReleaseNode(Node* node) {
    node->m_pNext = m_pFree;
    m_pFree = node;
}

// ---- entry ----

CRUdpTIDMap::Node::Node(unsigned long host, unsigned short port, unsigned long tid) {
    Set(host, port, tid);
}

void CRUdpTIDMap::Node::Set(unsigned long host, unsigned short port, unsigned long tid) {
    m_nHost = static_cast<uint32_t>(host);
    m_nPort = port;
    m_nTID = static_cast<uint32_t>(tid);
}

bool CRUdpTIDMap::Node::TestAndSet(unsigned long tid) {
    const uint32_t last = m_nTID;
    m_nTID = static_cast<uint32_t>(tid);
    return m_nTID == last;
}

// ---- bucket ----

void CRUdpTIDMap::List::Set(Node::NodeManager* manager, AgeList* ages) {
    m_pNodeManager = manager;
    m_pAgeList = ages;
}

bool CRUdpTIDMap::List::DuplicateTestAndSet(unsigned long host, unsigned short port,
                                            unsigned long tid) {
    const uint32_t ip = static_cast<uint32_t>(host);
    for (Node* node = m_pHead; node != nullptr; node = node->m_pNext) {
        if (node->IsPeer(ip, port)) {
            if (node->TestAndSet(tid)) {
                return true;
            }
            m_pAgeList->UpdatePosition(node);
            return false;
        }
    }

    Node* node = m_pNodeManager->GetFreeNode();
    if (node == nullptr) {
        node = m_pAgeList->GetOldest();
    }
    if (node != nullptr) {
        node->Set(host, port, tid);
        node->m_pPrev = nullptr;
        node->m_pNext = m_pHead;
        if (m_pHead != nullptr) {
            m_pHead->m_pPrev = node;
        }
        m_pHead = node;
        m_pAgeList->Add(node);
    }
    return false;
}

void CRUdpTIDMap::List::RemoveNode(Node* node, bool release) {
    (node == m_pHead ? m_pHead : node->m_pPrev->m_pNext) = node->m_pNext;
    if (node->m_pNext != nullptr) {
        node->m_pNext->m_pPrev = node->m_pPrev;
    }
    if (release) {
        m_pNodeManager->ReleaseNode(node);
    }
}

// ---- buckets ----

CRUdpTIDMap::Hash::Hash(List* lists, unsigned int count, Node::NodeManager* manager, AgeList* ages)
    : m_pLists(lists != nullptr ? lists : new (std::nothrow) List[count]),
      m_bOwnLists(lists == nullptr),
      m_nLists(m_pLists != nullptr ? count : 0) {
    for (uint32_t i = 0; i < m_nLists; ++i) {
        m_pLists[i].Set(manager, ages);
    }
}

CRUdpTIDMap::Hash::~Hash() {
    if (m_bOwnLists) {
        delete[] m_pLists;
    }
}

CRUdpTIDMap::List* CRUdpTIDMap::Hash::GetList(unsigned long host, unsigned short port) {
    if (m_nLists == 0) {
        return nullptr;
    }
    const uint32_t low_half = host & 0xFFFF;
    return m_pLists + low_half * port % m_nLists;
}

// ---- age list ----

void CRUdpTIDMap::AgeList::Add(Node* node) {
    node->m_pOlder = m_pNewest;
    node->m_pNewer = nullptr;
    node->m_Timer.Start();
    (m_pNewest == nullptr ? m_pOldest : m_pNewest->m_pNewer) = node;
    m_pNewest = node;
    ++m_nCount;
}

void CRUdpTIDMap::AgeList::UpdatePosition(Node* node) {
    if (node != m_pNewest) {
        Unlink(node);
        Add(node);
    }
}

CRUdpTIDMap::Node* CRUdpTIDMap::AgeList::GetOldest() {
    return m_pOldest == nullptr ? nullptr : TakeOldest(false);
}

void CRUdpTIDMap::AgeList::RemoveOld(unsigned long maxAgeMs) {
    timeval now;
    CTickTimer::GetRelativeTimeMsec(now);
    // As an unsigned number, a negative age is above any limit.
    while (m_pOldest != nullptr && static_cast<unsigned long>(m_pOldest->GetAge(now)) > maxAgeMs) {
        TakeOldest(true);
    }
}

void CRUdpTIDMap::AgeList::Unlink(Node* node) {
    (node == m_pOldest ? m_pOldest : node->m_pOlder->m_pNewer) = node->m_pNewer;
    (node == m_pNewest ? m_pNewest : node->m_pNewer->m_pOlder) = node->m_pOlder;
    --m_nCount;
}

CRUdpTIDMap::Node* CRUdpTIDMap::AgeList::TakeOldest(bool release) {
    Node* const node = m_pOldest;
    Unlink(node);
    m_pHash->GetList(node->m_nHost, node->m_nPort)->RemoveNode(node, release);
    return node;
}

// ---- map ----

CRUdpTIDMap::CRUdpTIDMap(unsigned long maxAgeMs, List* lists, unsigned int listCount, Node* nodes,
                         unsigned int nodeCount, unsigned int growBy)
    : m_AgeList(&m_Hash),
      m_Hash(lists, listCount, &m_NodeManager, &m_AgeList),
      m_nMaxAge(static_cast<uint32_t>(maxAgeMs)),
      m_NodeManager(nodes, nodeCount, growBy) {}

bool CRUdpTIDMap::DuplicateTestAndSet(unsigned long host, unsigned short port, unsigned long tid) {
    List* const list = m_Hash.GetList(host, port);
    return list != nullptr && list->DuplicateTestAndSet(host, port, tid);
}
