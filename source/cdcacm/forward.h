// Forward declarations of the driver's records, so that module headers can
// point at each other's records without an include cycle. Each record is
// defined by the module that owns it; cdcacm.h gathers them all.
#pragma once

#include "platform.h"

typedef struct _DEVICE DEVICE, *PDEVICE;
typedef struct _ATTACH_OBJ ATTACH_OBJ, *PATTACH_OBJ;
typedef struct _PORT_OBJ PORT_OBJ, *PPORT_OBJ;
typedef struct _TIMER_OBJ TIMER_OBJ, *PTIMER_OBJ;
typedef struct _SER_PORT SER_PORT, *PSER_PORT;
typedef struct _SER_REQUEST SER_REQUEST, *PSER_REQUEST;
typedef struct _SQUEUE SQUEUE, *PSQUEUE;
typedef struct _PPP_FRAMER PPP_FRAMER, *PPPP_FRAMER;
typedef struct _PPP_DEFRAMER PPP_DEFRAMER, *PPPP_DEFRAMER;
typedef struct _DPOOL DPOOL, *PDPOOL;
typedef struct _IRP_QUEUE IRP_QUEUE, *PIRP_QUEUE;
typedef struct _COMPLETE_QUEUE COMPLETE_QUEUE, *PCOMPLETE_QUEUE;
typedef struct _USB_PACKET USB_PACKET, *PUSB_PACKET;
typedef struct _USB_PACKET_POOL USB_PACKET_POOL, *PUSB_PACKET_POOL;
typedef struct _SNDRCV_PIPE SNDRCV_PIPE, *PSNDRCV_PIPE;
typedef struct _USB_DEVICE USB_DEVICE, *PUSB_DEVICE;
typedef struct _USB_INTERFACE USB_INTERFACE, *PUSB_INTERFACE;
typedef struct _USB_PIPE USB_PIPE, *PUSB_PIPE;
typedef struct _USB_CTRL_REQUEST USB_CTRL_REQUEST, *PUSB_CTRL_REQUEST;
typedef struct _DEVICE_CFG DEVICE_CFG, *PDEVICE_CFG;
