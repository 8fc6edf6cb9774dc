// The receiver's memory of which messages it has had.
#pragma once

#include <cstdint>

#include "rudp/TickTimer.h"

// Records for each peer, an address and a port, the transaction ID of the last message accepted
// from it: a message with the same ID is a repeat. Repeats of earlier messages are not recognised.
// Entries live for an age limit and are then released by RemoveOldEntries.
//
// Every entry in use hangs in two lists, that of its hash bucket and that of all entries by age;
// entries not in use wait in a pool that grows by whole chunks and gives nothing back before the
// map is destroyed. Addresses and ports are in host byte order. For one thread; not copied.
class CRUdpTIDMap {
public:
    class AgeList;

    // One bucket: the entries of the peers that hash to it, newest first.
    class List {
    public:
        // One entry. Its timer runs from the moment when it became the newest by age.
        class Node {
        public:
            // The pool.
            class NodeManager {
            public:
                // Starts with the count nodes at nodes, which stay the caller's. growBy 0 means
                // that it never allocates.
                NodeManager(Node* nodes, unsigned int count, unsigned int growBy);
                ~NodeManager();
                NodeManager(const NodeManager&) = delete;
                NodeManager& operator=(const NodeManager&) = delete;

                // A node, or null when none is left and no more can be had.
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
            // Whether the ID is the one recorded; records it when it is not.
            bool TestAndSet(unsigned long tid);
            // In milliseconds; negative when the clock was set back.
            long GetAge(timeval now) const { return m_Timer.Elapsed(now); }
            bool IsPeer(uint32_t host, uint16_t port) const {
                return m_nHost == host && m_nPort == port;
            }
            // Whether they are of the same peer, whatever their transaction IDs.
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
        // Takes a node of this bucket out of it and, if told so, gives it back to the pool.
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

        // The bucket of a peer; null when there are no buckets.
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
        // Makes the node the newest. If it is that already its timer runs on.
        void UpdatePosition(Node* node);
        // Takes the oldest entry out of this list and of its bucket; null when there is none.
        Node* GetOldest();
        // Gives all entries older than maxAgeMs back to the pool.
        void RemoveOld(unsigned long maxAgeMs);

    private:
        void Unlink(Node* node);
        Node* TakeOldest(bool release);

        Hash* m_pHash;
        Node* m_pOldest = nullptr;
        Node* m_pNewest = nullptr;
        uint32_t m_nCount = 0;
    };

    // lists: listCount buckets of the caller's, or null for as many of the map's own. nodes:
    // nodeCount entries of the caller's to begin with. growBy: entries allocated at a time, at
    // most 65536, once these are used up; with 0 the oldest entry is used again. A map that can
    // have no entries (or, when memory is short, no buckets) records nothing: it recognises no
    // repeats.
    CRUdpTIDMap(unsigned long maxAgeMs, List* lists, unsigned int listCount, Node* nodes,
                unsigned int nodeCount, unsigned int growBy);
    CRUdpTIDMap(const CRUdpTIDMap&) = delete;
    CRUdpTIDMap& operator=(const CRUdpTIDMap&) = delete;

    // True for a repeat of the last message accepted from the peer; else records it.
    bool DuplicateTestAndSet(unsigned long host, unsigned short port, unsigned long tid);

    // Releases every entry older than the age limit, and those that a clock set back makes younger
    // than nothing.
    void RemoveOldEntries() { m_AgeList.RemoveOld(m_nMaxAge); }

private:
    AgeList m_AgeList;
    Hash m_Hash;
    uint32_t m_nMaxAge;
    Node::NodeManager m_NodeManager;
};
