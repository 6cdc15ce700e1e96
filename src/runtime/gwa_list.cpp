#include "runtime/gwa_list.h"

void list_insert_before(list_link& position, list_link& link) {
    link.next = &position;
    link.prev = position.prev;
    position.prev->next = &link;
    position.prev = &link;
}

void list_unlink(list_link& link) {
    link.prev->next = link.next;
    link.next->prev = link.prev;
}

void list_reset(list_link& link) {
    link.next = &link;
    link.prev = &link;
}
