/* libubus_c.c - the bus headers compile as C, method tables and all, so C
 * services can use them as they would on a device. */
#include <libubus.h>

static int c_handler(struct ubus_context *ctx, struct ubus_object *obj,
		     struct ubus_request_data *req, const char *method, struct blob_attr *msg)
{
	(void)ctx; (void)obj; (void)req; (void)method; (void)msg;
	return UBUS_STATUS_OK;
}

static const struct blobmsg_policy c_policy[] = {
	{ .name = "id", .type = BLOBMSG_TYPE_INT32 },
};

static const struct ubus_method c_methods[] = {
	UBUS_METHOD("with_args", c_handler, c_policy),
	UBUS_METHOD_NOARG("no_args", c_handler),
};

static struct ubus_object_type c_type = UBUS_OBJECT_TYPE("c_type", c_methods);

int libubus_c_method_count(void);
int libubus_c_method_count(void)
{
	return c_type.n_methods;
}
