// The receiver's memory of the messages it has accepted.
#pragma once

#include <cstdint>

#include "rudp/TickTimer.h"

// Records for each peer, an address and a port, the transaction ID of the last message accepted
// from it: a message with the same ID is a repeat. Repeats of earlier messages are not recognised.
// RemoveOldEntries releases entries beyond an age limit.
//
// Every entry in use is in two lists, that of its hash bucket and that of all entries by age.
// Unused entries are in a pool that grows by chunks and frees them only when the map is destroyed.
// Addresses and ports are in host byte order. For one thread; not copied.
class CRUdpTIDMap {
public:
    class AgeList;

    // One bucket: the entries of the peers that hash to it, newest first.
    class List {
    public:
        // One entry. Its timer runs from the moment when it became the newest.
        class Node {
        public:
            // The pool.
            class NodeManager {
            public:
                // Starts with count nodes at nodes, which stay the caller's. With growBy 0 it never
                // allocates.
                NodeManager(Node* nodes, unsigned int count, unsigned int growBy);
                ~NodeManager();
                NodeManager(const NodeManager&) = delete;
                NodeManager& operator=(const NodeManager&) = delete;

                // A node, or null if none is left and it can't grow.
                Node* GetFreeNode();
                void ReleaseNode(Node* node);

            private:
                struct NodeChunk {
                    Node* m_pNodes;
                    NodeChunk* m_pNext;
                };
                Node* Grow();

                NodeChunk* m_pChunks = nullptr;
                Node* m_pFree = nullptr;
                uint32_t m_nGrowBy;
            };

            explicit Node(unsigned long host = 0, unsigned short port = 0, unsigned long tid = 0);
            void Set(unsigned long host, unsigned short port, unsigned long tid);
            // Whether the ID is the recorded one; if not, records it.
            bool TestAndSet(unsigned long tid);
            // In milliseconds; negative if the clock was set back.
            long GetAge(timeval now) const { return m_Timer.Elapsed(now); }
            bool IsPeer(uint32_t host, uint16_t port) const {
                return m_nHost == host && m_nPort == port;
            }
            // Whether they are of the same peer, regardless of the transaction IDs.
            bool operator==(const Node& other) const {
                return IsPeer(other.m_nHost, other.m_nPort);
            }

        private:
            friend class List;
            friend class AgeList;

            CTickTimer m_Timer;
            Node* m_pPrev = nullptr;
            Node* m_pNext = nullptr;  // in the bucket, or in the pool's free list
            Node* m_pOlder = nullptr;
            Node* m_pNewer = nullptr;
            uint32_t m_nHost = 0;
            uint16_t m_nPort = 0;
            uint32_t m_nTID = 0;
        };

        void Set(Node::NodeManager* manager, AgeList* ages);
        bool DuplicateTestAndSet(unsigned long host, unsigned short port, unsigned long tid);
        // Removes a node from this bucket; with release, returns it to the pool.
        void RemoveNode(Node* node, bool release);

    private:
        Node* m_pHead = nullptr;
        Node::NodeManager* m_pNodeManager = nullptr;
        AgeList* m_pAgeList = nullptr;
    };
    using Node = List::Node;

    // The buckets.
    class Hash {
    public:
        Hash(List* lists, unsigned int count, Node::NodeManager* manager, AgeList* ages);
        ~Hash();
        Hash(const Hash&) = delete;
        Hash& operator=(const Hash&) = delete;

        // The bucket of a peer; null if there are no buckets.
        List* GetList(unsigned long host, unsigned short port);

    private:
        List* m_pLists;
        bool m_bOwnLists;
        uint32_t m_nLists;
    };

    // All entries in use, by the order in which they became the newest.
    class AgeList {
    public:
        explicit AgeList(Hash* hash) : m_pHash(hash) {}

        void Add(Node* node);
        // Makes the node the newest. If it already is, its timer continues.
        void UpdatePosition(Node* node);
        // Removes the oldest entry from this list and from its bucket; null if there is none.
        Node* GetOldest();
        // Returns all entries older than maxAgeMs to the pool.
        void RemoveOld(unsigned long maxAgeMs);

    private:
        void Unlink(Node* node);
        Node* TakeOldest(bool release);

        Hash* m_pHash;
        Node* m_pOldest = nullptr;
        Node* m_pNewest = nullptr;
        uint32_t m_nCount = 0;
    };

    // lists: the caller's listCount buckets, or null for the map to allocate them. nodes: the
    // caller's initial nodeCount entries. growBy: how many entries to allocate at a time, at most
    // 65536, once these are used up; with 0 the oldest entry is reused. A map without entries (or,
    // if memory is short, without buckets) records nothing and recognises no repeats.
    CRUdpTIDMap(unsigned long maxAgeMs, List* lists, unsigned int listCount, Node* nodes,
                unsigned int nodeCount, unsigned int growBy);
    CRUdpTIDMap(const CRUdpTIDMap&) = delete;
    CRUdpTIDMap& operator=(const CRUdpTIDMap&) = delete;

    // True for a repeat of the last message accepted from the peer; else records it.
    bool DuplicateTestAndSet(unsigned long host, unsigned short port, unsigned long tid);

    // Releases every entry older than the age limit, and those whose age is negative because the
    // clock was set back.
    void RemoveOldEntries() { m_AgeList.RemoveOld(m_nMaxAge); }

private:
    AgeList m_AgeList;
    Hash m_Hash;
    uint32_t m_nMaxAge;
    Node::NodeManager m_NodeManager;
};
