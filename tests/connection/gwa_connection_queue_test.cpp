#include "connection/gwa_connection_queue.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct entry {
    char name;
    uint32_t priority;
    uint32_t stream_id = 0;
    uint32_t flags = 0;
};

// A queue of static nodes that tells its order by their names.
struct named_queue {
    gwa_output_queue queue;
    gwa_output_node nodes[16];
    size_t count = 0;

    gwa_output_node* make(const entry& made) {
        gwa_output_node* const node = &nodes[count++];
        node->capacity = static_cast<uint32_t>(made.name);
        node->priority = made.priority;
        node->stream_id = made.stream_id;
        node->flags = made.flags | GWA_NODE_HEARTBEAT;
        return node;
    }
    void insert(const entry& made) { gwa_connection_remote_output_enqueue(&queue, make(made)); }
    std::string order() {
        std::string result;
        for (gwa_output_node& node : queue.nodes) {
            result += static_cast<char>(node.capacity);
        }
        return result;
    }
};

TEST(OutputQueue, PriorityInsertGoesBehindTheFirstGreaterAndNeverAheadOfItsOwnStream) {
    const struct {
        std::vector<entry> inserts;
        const char* order;
    } cases[] = {
        {{{'P', 1}, {'R', 5}, {'Q', 3}}, "PRQ"},
        {{{'P', 1}, {'R', 5}, {'Q', 0}}, "PQR"},
        {{{'P', 1}, {'R', 5}, {'Q', 7}}, "PRQ"},
        {{{'P', 0}, {'Q', 0}, {'R', 0}}, "PQR"},
        {{{'P', 9, 0, GWA_NODE_PARTLY_SENT}, {'X', 0}}, "PX"},
        {{{'P', 9, 0, GWA_NODE_PARTLY_SENT}, {'A', 5}, {'X', 0}}, "PAX"},
        {{{'P', 5, 0, GWA_NODE_PARTLY_SENT}, {'A', 3}, {'B', 9}, {'X', 4}}, "PABX"},
        {{{'Y', 9, 1}, {'a', 4, 2}, {'b', 4, 2}, {'c', 4, 2}}, "Yabc"},
        {{{'Y', 9, 1}, {'a', 4, 2}, {'r', 0}, {'b', 4, 2}, {'Z', 9, 1}}, "YrabZ"},
        {{{'Y', 9, 1}, {'a', 4, 2}, {'Z', 9, 1}, {'b', 2, 3}, {'c', 4, 2}}, "YbacZ"},
    };
    for (const auto& [inserts, order] : cases) {
        named_queue named;
        for (const entry& made : inserts) {
            named.insert(made);
        }
        EXPECT_EQ(named.order(), order);
    }
}

TEST(OutputQueue, APartlySentFrameKeepsTheFront) {
    named_queue named;
    gwa_output_queue* const queue = &named.queue;
    EXPECT_EQ(gwa_connection_dequeue(queue), nullptr);
    EXPECT_EQ(gwa_connection_queue_is_empty(queue), 1);
    EXPECT_EQ(gwa_connection_enqueue_if_empty(queue, named.make({'P', 0})), 1);
    EXPECT_EQ(gwa_connection_enqueue_if_empty(queue, named.make({'-', 0})), 0);
    EXPECT_EQ(named.order(), "P");
    gwa_connection_head_enqueue(queue, named.make({'H', 0}));
    EXPECT_EQ(named.order(), "HP");

    gwa_output_node* const front = gwa_connection_dequeue(queue);
    front->flags |= GWA_NODE_PARTLY_SENT;
    gwa_connection_head_enqueue(queue, front);
    gwa_connection_head_enqueue(queue, named.make({'I', 0}));
    EXPECT_EQ(named.order(), "HIP");
    EXPECT_EQ(gwa_connection_dequeue(queue), front);
    EXPECT_EQ(named.order(), "IP");
}

TEST(OutputQueue, AnEmptiedQueueForgetsItsHighestPriority) {
    named_queue named;
    named.insert({'A', 9, 1});
    gwa_connection_dequeue(&named.queue);
    named.insert({'B', 2, 2});
    named.insert({'C', 3, 3});
    named.insert({'D', 2, 4});
    EXPECT_EQ(named.order(), "BCD");
}

}  // namespace
