// Generic list: stack and queue order, removal, ownership of the data. The set union and the
// printer, which no command uses, are not tested.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "quovix-ds.hpp"
#include "quovix.hpp"  // quovix_deleter

namespace {

using list_ptr = std::unique_ptr<QUOVIX_LIST, quovix_deleter<quovix_list_free>>;

// Counts the calls of the release function, separately for null data.
int released = 0;
int released_null = 0;
void count_release(void *p) {
    if (p) {
        released++;
        std::free(p);
    } else {
        released_null++;
    }
}

int *new_int(int v) {
    int *p = static_cast<int *>(std::malloc(sizeof(int)));
    *p = v;
    return p;
}

}  // namespace

TEST(List, NewListIsEmpty) {
    list_ptr list{quovix_list_new(nullptr)};
    ASSERT_TRUE(list);
    EXPECT_EQ(quovix_list_pop(list.get()), nullptr);
    EXPECT_EQ(quovix_list_dequeue(list.get()), nullptr);
}

TEST(List, StackIsLastInFirstOutAndQueueFirstInFirstOut) {
    int a = 1, b = 2, c = 3;
    list_ptr stack{quovix_list_new(nullptr)};
    ASSERT_TRUE(stack);
    EXPECT_EQ(quovix_list_push(stack.get(), &a), &a);
    EXPECT_EQ(quovix_list_push(stack.get(), &b), &b);
    EXPECT_EQ(quovix_list_top(stack.get()), &b);
    EXPECT_EQ(quovix_list_pop(stack.get()), &b);
    EXPECT_EQ(quovix_list_pop(stack.get()), &a);
    EXPECT_TRUE(quovix_list_is_empty(stack.get()));

    list_ptr queue{quovix_list_new(nullptr)};
    ASSERT_TRUE(queue);
    quovix_list_enqueue(queue.get(), &a);
    quovix_list_enqueue(queue.get(), &b);
    quovix_list_enqueue(queue.get(), &c);
    EXPECT_EQ(quovix_list_front(queue.get()), &a);
    EXPECT_EQ(quovix_list_dequeue(queue.get()), &a);
    EXPECT_EQ(quovix_list_dequeue(queue.get()), &b);
    EXPECT_EQ(quovix_list_dequeue(queue.get()), &c);

    // append/prepend build the order a, b, c from both ends.
    list_ptr list{quovix_list_new(nullptr)};
    quovix_list_append(list.get(), &b);
    quovix_list_append(list.get(), &c);
    quovix_list_prepend(list.get(), &a);
    EXPECT_EQ(quovix_list_read_first(list.get()), &a);
    EXPECT_EQ(quovix_list_read_last(list.get()), &c);
    // Remove the middle node through the cursor left by contain().
    ASSERT_TRUE(quovix_list_contain(list.get(), &b));
    EXPECT_EQ(quovix_list_remove(list.get(), list->curr), &b);
    EXPECT_FALSE(quovix_list_contain(list.get(), &b));
    EXPECT_EQ(quovix_list_count(list.get()), 2);
    EXPECT_EQ(quovix_list_remove(list.get(), list->head), nullptr);  // sentinels stay
}

TEST(List, ReleaseFunctionSeesEveryElementOnceAndBothSentinels) {
    released = released_null = 0;
    QUOVIX_LIST *list = quovix_list_new(count_release);
    ASSERT_NE(list, nullptr);
    for (int i = 0; i < 4; i++) quovix_list_append(list, new_int(i));
    int *taken = static_cast<int *>(quovix_list_pop(list));  // popped data is not released
    EXPECT_EQ(*taken, 0);
    std::free(taken);
    EXPECT_EQ(released, 0);
    quovix_list_free(list);
    EXPECT_EQ(released, 3);
    EXPECT_EQ(released_null, 2);

    released = released_null = 0;
    list = quovix_list_new(count_release);
    ASSERT_NE(list, nullptr);
    quovix_list_append(list, new_int(7));
    quovix_list_append(list, new_int(8));
    quovix_list_empty(list);
    EXPECT_EQ(released, 2);
    EXPECT_EQ(released_null, 0);  // emptying leaves the sentinels alone
    EXPECT_TRUE(quovix_list_is_empty(list));
    int keep = 5;
    quovix_list_append(list, &keep);
    quovix_list_free_ref(list);  // data stays alive, no release calls at all
    EXPECT_EQ(released, 2);
    EXPECT_EQ(released_null, 0);
    quovix_list_free(nullptr);
}
