/* headers_c.c - the public headers compile as C: the device's own C programs
 * include them. The function is called from a test so the file links in. */
#include <libubox/utils.h>
#include <libubox/list.h>
#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>

int ubox_headers_c_probe(void);

static const struct blobmsg_policy probe_policy[] = {
	{ "name", BLOBMSG_TYPE_STRING },
	{ "count", BLOBMSG_TYPE_INT32 },
};

/* Builds {"name":"c","count":2} and parses it back: 2 when both are found. */
int ubox_headers_c_probe(void)
{
	static struct blob_buf b;
	struct blob_attr *tb[ARRAY_SIZE(probe_policy)];
	struct blob_attr *cur;
	size_t rem;
	int n = 0;

	blob_buf_init(&b, 0);
	blobmsg_add_string(&b, "name", "c");
	blobmsg_add_u32(&b, "count", 2);
	blobmsg_parse(probe_policy, ARRAY_SIZE(probe_policy), tb, blob_data(b.head),
		      blob_len(b.head));
	blob_for_each_attr(cur, b.head, rem)
		n += tb[0] && tb[1] && blobmsg_get_u32(tb[1]) == 2;
	blob_buf_free(&b);
	return n;
}
