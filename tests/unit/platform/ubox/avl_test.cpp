// avl_test.cpp - the avl tree (balance, order, duplicates, neighbour lookups)
// and the list primitives it is threaded with.
#include <libubox/avl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

struct Rec {
	int key;
	int seq;
	avl_node node;
	list_head link;
};

int cmp_int(const void *a, const void *b, void *)
{
	int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
	return x < y ? -1 : x > y;
}

// Checks parent links, stored heights and the balance rule; returns height.
int check_subtree(const avl_node *n, const avl_node *parent, int &count)
{
	if (!n)
		return 0;
	EXPECT_EQ(parent, n->parent);
	count++;
	int l = check_subtree(n->left, n, count);
	int r = check_subtree(n->right, n, count);
	EXPECT_LE(std::abs(l - r), 1);
	EXPECT_EQ(1 + std::max(l, r), n->balance);
	return 1 + std::max(l, r);
}

// The tree is balanced and its key-order list is sorted, with equal keys in
// insertion order; returns the keys in list order.
std::vector<int> check_tree(const avl_tree &t)
{
	int count = 0;
	check_subtree(t.root, nullptr, count);
	EXPECT_EQ(t.count, static_cast<unsigned int>(count));
	std::vector<int> keys;
	const Rec *prev = nullptr;
	Rec *r;
	avl_for_each_element(const_cast<avl_tree *>(&t), r, node) {
		if (prev) {
			EXPECT_LE(prev->key, r->key);
			if (prev->key == r->key) {
				EXPECT_LT(prev->seq, r->seq);
			}
		}
		EXPECT_EQ(!prev || prev->key != r->key, r->node.leader);
		keys.push_back(r->key);
		prev = r;
	}
	EXPECT_EQ(t.count, keys.size());
	return keys;
}

TEST(Avl, StaysBalancedAndOrderedThroughRandomInsertsAndDeletes)
{
	std::mt19937 rng(7);
	std::vector<Rec> recs(2000);
	avl_tree t;
	avl_init(&t, cmp_int, false, nullptr);
	std::map<int, Rec *> model;
	for (size_t i = 0; i < recs.size(); i++) {
		recs[i].key = static_cast<int>(rng() % 5000);
		recs[i].seq = static_cast<int>(i);
		recs[i].node.key = &recs[i].key;
		int r = avl_insert(&t, &recs[i].node);
		if (model.count(recs[i].key)) {
			EXPECT_EQ(-1, r);  // no duplicates in this tree
		} else {
			EXPECT_EQ(0, r);
			model[recs[i].key] = &recs[i];
		}
	}
	std::vector<int> expect;
	for (auto &kv : model)
		expect.push_back(kv.first);
	EXPECT_EQ(expect, check_tree(t));

	// Delete a random half, including nodes with two children.
	std::vector<int> keys = expect;
	std::shuffle(keys.begin(), keys.end(), rng);
	for (size_t i = 0; i < keys.size() / 2; i++) {
		avl_delete(&t, &model[keys[i]]->node);
		model.erase(keys[i]);
	}
	expect.clear();
	for (auto &kv : model)
		expect.push_back(kv.first);
	EXPECT_EQ(expect, check_tree(t));

	for (int probe = -1; probe < 5002; probe += 7) {
		Rec *r = nullptr;
		r = avl_find_element(&t, &probe, r, node);
		EXPECT_EQ(model.count(probe) ? model[probe] : nullptr, r);
		auto ge = model.lower_bound(probe);
		Rec *g = nullptr;
		g = avl_find_ge_element(&t, &probe, g, node);
		EXPECT_EQ(ge == model.end() ? nullptr : ge->second, g);
		auto le = model.upper_bound(probe);
		Rec *l = nullptr;
		l = avl_find_le_element(&t, &probe, l, node);
		EXPECT_EQ(le == model.begin() ? nullptr : std::prev(le)->second, l);
	}

	// Safe iteration may delete what it visits.
	Rec *r, *tmp;
	avl_for_each_element_safe(&t, r, node, tmp) {
		if (r->key % 2)
			avl_delete(&t, &r->node);
	}
	for (int k : check_tree(t))
		EXPECT_EQ(0, k % 2);
	avl_remove_all_elements(&t, r, node, tmp) {
		r->seq = -1;
	}
	EXPECT_TRUE(avl_is_empty(&t));
	EXPECT_EQ(nullptr, t.root);
	EXPECT_TRUE(list_empty(&t.list_head));
}

TEST(Avl, DuplicatesKeepInsertionOrderAndFindTheEarliest)
{
	std::vector<Rec> recs(300);
	avl_tree t;
	avl_init(&t, cmp_int, true, nullptr);
	for (size_t i = 0; i < recs.size(); i++) {
		recs[i].key = static_cast<int>(i % 10);
		recs[i].seq = static_cast<int>(i);
		recs[i].node.key = &recs[i].key;
		ASSERT_EQ(0, avl_insert(&t, &recs[i].node));
	}
	check_tree(t);
	int key = 4;
	EXPECT_EQ(&recs[4].node, avl_find(&t, &key));
	avl_delete(&t, &recs[4].node);  // the leader goes; the next equal one leads
	EXPECT_EQ(&recs[14].node, avl_find(&t, &key));
	check_tree(t);
}

TEST(Avl, StringKeys)
{
	struct Named {
		std::string name;
		avl_node node;
	} a {"beta", {}}, b {"alpha", {}}, c {"gamma", {}};
	AVL_TREE(t, avl_strcmp, false, nullptr);
	for (Named *n : {&a, &b, &c}) {
		n->node.key = n->name.c_str();
		ASSERT_EQ(0, avl_insert(&t, &n->node));
	}
	std::string order;
	Named *n;
	avl_for_each_element(&t, n, node) order += n->name + " ";
	EXPECT_EQ("alpha beta gamma ", order);
	order.clear();
	avl_for_each_element_reverse(&t, n, node) order += n->name + " ";
	EXPECT_EQ("gamma beta alpha ", order);
	EXPECT_EQ(&b, avl_first_element(&t, n, node));
	EXPECT_EQ(&c, avl_last_element(&t, n, node));
	EXPECT_EQ(nullptr, avl_find(&t, "delta"));
}

std::vector<int> keys_of(list_head *h)
{
	std::vector<int> v;
	Rec *r;
	list_for_each_entry(r, h, link) v.push_back(r->key);
	return v;
}

TEST(List, PrimitivesRewireAsDrawn)
{
	Rec r[5];
	for (int i = 0; i < 5; i++)
		r[i].key = i;
	LIST_HEAD(h);
	EXPECT_TRUE(list_empty(&h));

	// [h] -> 1 -> 2, then 0 at the front: [h] -> 0 -> 1 -> 2
	list_add_tail(&r[1].link, &h);
	list_add_tail(&r[2].link, &h);
	list_add(&r[0].link, &h);
	EXPECT_EQ((std::vector<int> {0, 1, 2}), keys_of(&h));
	EXPECT_TRUE(list_is_first(&r[0].link, &h));
	EXPECT_TRUE(list_is_last(&r[2].link, &h));
	EXPECT_EQ(&r[2], list_last_entry(&h, Rec, link));

	// move 0 to the tail: [h] -> 1 -> 2 -> 0; delete 2: [h] -> 1 -> 0
	list_move_tail(&r[0].link, &h);
	list_del(&r[2].link);
	EXPECT_EQ((std::vector<int> {1, 0}), keys_of(&h));
	EXPECT_EQ(nullptr, r[2].link.next);  // removed entries are poisoned

	// splice [o] -> 3 -> 4 at the front: [h] -> 3 -> 4 -> 1 -> 0, [o] empty
	LIST_HEAD(o);
	list_add_tail(&r[3].link, &o);
	list_add_tail(&r[4].link, &o);
	list_splice_init(&o, &h);
	EXPECT_TRUE(list_empty(&o));
	EXPECT_EQ((std::vector<int> {3, 4, 1, 0}), keys_of(&h));

	// del_init leaves a re-insertable entry; safe iteration may unlink.
	list_del_init(&r[4].link);
	EXPECT_TRUE(list_empty(&r[4].link));
	Rec *p, *n;
	list_for_each_entry_safe(p, n, &h, link) {
		if (p->key != 1)
			list_del(&p->link);
	}
	EXPECT_EQ((std::vector<int> {1}), keys_of(&h));
}

TEST(Utils, CallocAPlacesAlignedZeroedPieces)
{
	char *name;
	uint64_t *nums;
	auto *base = static_cast<Rec *>(calloc_a(sizeof(Rec), &name, size_t {5}, &nums, 3 * sizeof(uint64_t)));
	ASSERT_NE(nullptr, base);
	EXPECT_GE(name, reinterpret_cast<char *>(base + 1));
	EXPECT_GE(reinterpret_cast<char *>(nums), name + 5);
	EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(nums) % 8);
	EXPECT_EQ(0, base->key);
	EXPECT_EQ(0u, nums[2]);
	free(base);
	EXPECT_EQ(0x0102u, be16_to_cpu(cpu_to_be16(0x0102)));
	uint32_t be = cpu_to_be32(0x01020304);
	EXPECT_EQ(1, reinterpret_cast<uint8_t *>(&be)[0]);
}

} // namespace
