// blobmsg_json.cpp - JSON text to blobmsg and back, through json-c.
#include <libubox/blobmsg_json.h>
