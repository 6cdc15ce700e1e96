#include "connection/gwa_connection_queue.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A queue of static nodes that tells its order by their names. A node is made of its name, its
// priority and its stream, like "P10"; the name of a partly sent one is '!'.
struct named_queue : gwa_output_queue {
    gwa_output_node made[16];
    size_t count = 0;

    gwa_output_node* make(const char* text) {
        gwa_output_node* const node = &made[count++];
        node->capacity = static_cast<uint32_t>(text[0]);
        node->priority = static_cast<uint32_t>(text[1] - '0');
        node->flags = GWA_NODE_HEARTBEAT;
        if (text[2] != '0') {  // a stream's, whose id may be 0
            node->stream_id = static_cast<uint32_t>(text[2] - '1');
            node->flags |= GWA_NODE_STREAM;
        }
        node->flags |= text[0] == '!' ? GWA_NODE_PARTLY_SENT : 0U;
        return node;
    }
    std::string order() {
        std::string result;
        for (const gwa_output_node& node : nodes) {
            result += static_cast<char>(node.capacity);
        }
        return result;
    }
};

TEST(OutputQueue, PriorityInsertGoesBehindTheFirstGreaterAndNeverAheadOfItsOwnStream) {
    const std::pair<std::string, const char*> cases[] = {
        {"P10 R50 Q30", "PRQ"},
        {"P10 R50 Q00", "PQR"},
        {"P10 R50 Q70", "PRQ"},
        {"P00 Q00 R00", "PQR"},
        {"!90 X00", "!X"},
        {"!90 A50 X00", "!AX"},
        {"!50 A30 B90 X40", "!ABX"},
        {"Y91 a42 b42 c42", "Yabc"},
        {"a41 Y92 c41 d41", "aYcd"},
        {"Y91 a42 r00 b42 Z91", "YrabZ"},
        {"Y91 a42 Z91 b23 c42", "YbacZ"},
        {"A91 --- B22 C33 D24", "BCD"},  // emptied, it forgets its highest priority
    };
    for (const auto& [inserts, order] : cases) {
        named_queue queue;
        for (size_t at = 0; at < inserts.size(); at += 4) {
            inserts[at] == '-'
                ? (void)gwa_connection_dequeue(&queue)
                : (void)gwa_connection_remote_output_enqueue(&queue, queue.make(&inserts[at]));
        }
        EXPECT_EQ(queue.order(), order) << inserts;
    }
}

TEST(OutputQueue, APartlySentFrameKeepsTheFront) {
    named_queue queue;
    EXPECT_EQ(gwa_connection_dequeue(&queue), nullptr);
    EXPECT_EQ(gwa_connection_queue_is_empty(&queue), 1);
    EXPECT_EQ(gwa_connection_enqueue_if_empty(&queue, queue.make("P00")), 1);
    EXPECT_EQ(gwa_connection_enqueue_if_empty(&queue, queue.make("-00")), 0);
    gwa_connection_head_enqueue(&queue, queue.make("!00"));
    EXPECT_EQ(queue.order(), "!P");
    gwa_connection_head_enqueue(&queue, queue.make("I00"));
    EXPECT_EQ(queue.order(), "!IP");
    EXPECT_EQ(gwa_connection_dequeue(&queue), &queue.made[2]);
    EXPECT_EQ(queue.order(), "IP");
}

}  // namespace
