#ifndef GAKPPC_STATUS_TABLE_H
#define GAKPPC_STATUS_TABLE_H

/// @file
/// Status numbers and their texts.

#include <cstdint>

/// The one list of the system's status numbers and their texts, in registration order, grouped by module.
///
/// A status number has four fields: bits 24 to 31 system (always 0x01), bits 16 to 23 module (two decimal digits in a
/// hexadecimal field), bits 12 to 15 level (0 DEBUG, 1 INFO, 2 WARN, 3 ERROR, 4 FATAL), bits 0 to 11 a number that is
/// unique over the whole table. Only the level is ever decoded.
///
/// The texts are log vocabulary that other components search for: their misspellings, doubled words and repeated texts
/// stay as they are. This library returns and logs only the numbers named below; the other rows are the wider system's,
/// kept here so that a number from any component prints its text.
///
/// @param X  Called for each row as X(number, text).
#define GAKPPC_STATUS_TABLE(X) \
    /* module 0x01: common */ \
    X(0x1011000, "running ok") \
    X(0x1010001, "debug info") \
    X(0x1013002, "internal error") \
    X(0x1012003, "warnging") \
    X(0x1011004, "stopped") \
    X(0x1013009, "File is not existed") \
    X(0x101300A, "Default config file not exist") \
    X(0x1013005, "file size is too large") \
    X(0x1013006, "file path is invalid") \
    X(0x1013007, "memory exhausted error") \
    X(0x1013008, "interger reached reverse") \
    X(0x101300B, "call member function before instance initialed") \
    X(0x101300C, "initial failed") \
    X(0x101300D, "instance not found") \
    X(0x101300E, "create hdc session failed") \
    X(0x101300F, "destory hdc session failed") \
    X(0x1013010, "hdc session id do not exist") \
    X(0x1013011, "qelMain pid is exist") \
    X(0x101306C, "qel server accept hdc session failed") \
    X(0x101306D, "channel do not exist") \
    X(0x101306E, "message is null") \
    X(0x101306F, "transcation status error") \
    X(0x1013070, "transcation time out") \
    X(0x1013071, "transcation requst id is not exist") \
    X(0x1013072, "transcation generateid failed") \
    X(0x1013073, "send channel info failed") \
    X(0x1013074, "send channel info time out") \
    X(0x101307F, "channel has no session") \
    X(0x10130F3, "failed to init the channel of tuning-data") \
    X(0x10130F4, "the index is error") \
    X(0x10130F5, "the parameter is error") \
    /* module 0x02: daemon */ \
    X(0x1023024, "Gakdaemon start fail") \
    X(0x1023025, "Gakdaemon first get pid fail") \
    X(0x1023026, "Gakdaemon kill processfail") \
    X(0x1023027, "Gakdaemon second get pid fail") \
    X(0x1023028, "Gakdaemon clean process final fail") \
    X(0x1023029, "Gakdaemon init state fail") \
    X(0x102302A, "Gakdaemon init hdcserver fail") \
    X(0x102302B, "Gakdaemon get pid fail") \
    X(0x102302C, "Gakdaemon clean resource fail") \
    X(0x102302D, "Gakdaemon send msg fail") \
    X(0x102302E, "vexo_sd process abnormal") \
    X(0x102102F, "custom_vexo_sd process abnormal") \
    /* module 0x03: host-device server */ \
    X(0x1033012, "hdc server init error") \
    X(0x1033013, "hdc server create error") \
    X(0x1033014, "hdc server destroy error") \
    X(0x1033015, "hdc server accept error") \
    X(0x1033016, "hdc server closed error") \
    X(0x1033017, "hdc fail") \
    X(0x10330CC, "hdc device id error") \
    X(0x103301F, "hdc server close child session error") \
    X(0x103301D, "serarfunc is null") \
    X(0x103301E, "hdc send msg failed") \
    X(0x1033020, "hdc server close server session error") \
    X(0x1033021, "hdc server heart beat timeout") \
    X(0x1033022, "ovra drv return error") \
    X(0x1031018, "hdc info") \
    X(0x1033019, "hdc send message failed") \
    X(0x103301B, "ovra seg size error") \
    X(0x103301C, "Message input is null") \
    X(0x103301A, "hdc message parse error") \
    /* module 0x04: shuffle */ \
    X(0x1043042, "shuffle size is less or equal to 0") \
    X(0x1043043, "online unique seed is equal to 0") \
    X(0x1043044, "unable to create shuffle list") \
    X(0x1043045, "illegal shuffle type") \
    X(0x10430AE, "shuffler has not been inited") \
    X(0x10430DE, "Illegal shuffle parameter") \
    X(0x10430DF, "Create file shuffler fail") \
    /* module 0x05: data */ \
    X(0x1053080, "the sample has no label") \
    X(0x105309C, "the sample cannot be read") \
    X(0x1053046, "illegal data type") \
    X(0x1053095, "creating prefetcher failed") \
    X(0x1053065, "fail to get QELDataItem") \
    X(0x105309D, "data queue is closed") \
    X(0x105309E, "fail to get shuffle result") \
    X(0x10530AA, "label file has not been inited") \
    X(0x10530AB, "directory of sample files has not been inited") \
    X(0x10530AC, "prefetcher in deliver has not been inited") \
    X(0x10530AD, "shuffler in prefetcher has not been created") \
    X(0x10530AF, "shuffled item is out of file list") \
    X(0x10530C7, "fail to generate md5 of data") \
    X(0x10530CE, "qel filelist open failed") \
    X(0x10530CF, "qel sample file is empty") \
    X(0x10530D0, "qel open sample file fail") \
    X(0x10530D1, "qel stat sample file fail") \
    X(0x10530D2, "qel mmap sample file fail") \
    X(0x10530D3, "qel unmap sample file fail") \
    X(0x10530D4, "qel close sample file fail") \
    X(0x10530D5, "qel parse sample file fail") \
    X(0x10530D6, "qel crc32 of size mismatch") \
    X(0x10530D7, "qel crc32 of data mismatch") \
    X(0x10530D8, "qel prefetch data queue closed") \
    X(0x10530DA, "map insert fail") \
    X(0x10530D9, "prefetch init fail") \
    X(0x10530DB, "invalid filelist line") \
    X(0x10530E2, "BLB configuration fail") \
    X(0x10530E3, "BLB callback argument fail") \
    X(0x10530E4, "BLB download create thread fail") \
    X(0x10530E5, "BLB download file fail") \
    X(0x10530E6, "BLB download init fail") \
    X(0x10530E7, "BLB download metadata fail") \
    X(0x10530E8, "BLB list bucket fail") \
    X(0x10530E9, "qel memguard memcpy fail") \
    X(0x10530EA, "qel memguard memset fail") \
    /* module 0x06: configuration */ \
    X(0x1063092, "can not open config file") \
    X(0x1063093, "parse file failed") \
    X(0x1063094, "no channel can be found in config file") \
    X(0x1063096, "no parameter can be found") \
    X(0x1063097, "the argment is not --configfile or stop") \
    X(0x10630A0, "fail to create train data deliver") \
    X(0x10630A1, "train data deliver in the list is nullptr") \
    X(0x10630B0, "train data deliver init failed") \
    X(0x10630B1, "train data deliver start failed") \
    X(0x10630B5, "config file has syntax error") \
    X(0x10630BA, "no deliver is existed") \
    X(0x10630EB, "mkdir cmd failed") \
    X(0x10630EC, "cp cmd failed") \
    X(0x10630A2, "empty group_name") \
    X(0x10630A3, "the same group_name already exists") \
    X(0x10630A4, "the same device already exists") \
    X(0x10630A5, "cannot find device") \
    X(0x10620BC, "can not get environment variable") \
    /* module 0x07: jobs */ \
    X(0x107208E, "inotify is interrupted") \
    X(0x1073047, "unknow job state") \
    X(0x107308C, "illegal heartbeat time") \
    X(0x107308D, "read size of inotify is error") \
    X(0x107308F, "Initialization of inotify failed") \
    X(0x1073090, "Close inotifyFd failed") \
    X(0x1073091, "Add watch of inotify failed") \
    X(0x10730A6, "fail to write pid file") \
    X(0x10730A7, "heart beat file has not been inited") \
    X(0x10730A8, "job command file has not been inited") \
    X(0x10730A9, "job state file has not been inited") \
    X(0x10730BB, "fail to delete job command file") \
    /* module 0x08: memory pools and tasks */ \
    X(0x1083048, "host buffer map to device failed") \
    X(0x1083049, "memory pool alloc buffer failed") \
    X(0x108304B, "Input datasize is wrong") \
    X(0x108304A, "memory pool free buffer failed") \
    X(0x108304E, "invalid parameter") \
    X(0x108304F, "no usable memory in memory pool") \
    X(0x1083050, "recv msg is null") \
    X(0x108304D, "send msg failed") \
    X(0x1083051, "mempool has stopped") \
    X(0x1083052, "buffer not aligned") \
    X(0x108304C, "memory pool has inited") \
    X(0x1083053, "mempool not exist") \
    X(0x1083054, "mempool not exist") \
    X(0x1083055, "Recover recv data failed") \
    X(0x1083056, "Memory status error") \
    X(0x1083057, "update memory pool status failed") \
    X(0x1083058, "resize memory pool status failed") \
    X(0x108305A, "thread size is too large") \
    X(0x108205B, "rename thread failed") \
    X(0x108205C, "priority is invalid") \
    X(0x108205D, "join task failed") \
    X(0x108205E, "func is null") \
    X(0x108205F, "sear/dear init failed") \
    X(0x1082060, "func has already existed") \
    X(0x1083059, "mempool destroy failed") \
    X(0x10830CD, "data type factory make shared failed") \
    /* module 0x09: PPC */ \
    X(0x1093030, "Init PPC driver fail") \
    X(0x1093031, "Create PPC server or PPC client fail") \
    X(0x1093032, "Destory PPC server or PPC client fail") \
    X(0x1093033, "PPC server is closed") \
    X(0x1093034, "PPC get or set msg buffer fail") \
    X(0x1093035, "PPC connect is failed") \
    X(0x1093036, "PPC session is not existed") \
    X(0x1093037, "PPC send or receive msg fail") \
    X(0x1093038, "PPC msg free fail") \
    X(0x1093039, "PPC alloc memory for msg fail") \
    X(0x109303A, "PPC message length not match") \
    X(0x109303B, "PPC message buffer is null") \
    X(0x109303C, "PPC message client invalid param fail") \
    X(0x109303D, "PPC message server invalid param fail") \
    X(0x109303E, "PPC message client receive not expected msg continue") \
    X(0x109303F, "PPC message server receive server or client socket closed msg") \
    X(0x1093040, "PPC receive msg failed") \
    X(0x1093041, "PPC close session failed") \
    /* module 0x10: files */ \
    X(0x1103061, "can not get file state") \
    X(0x1103062, "can not open file") \
    X(0x110306B, "file content is empty") \
    X(0x1103063, "file is destroyed") \
    X(0x1103064, "fail to get memory for file") \
    X(0x1103098, "file type is not supported") \
    X(0x1103099, "pointer to dir is null") \
    X(0x110309A, "can not get the tree of dir") \
    X(0x110309B, "dir cannot be opened") \
    X(0x110309F, "DFree memory of file failed") \
    X(0x11030DC, "string to value fail") \
    X(0x11030DD, "value positive integer fail") \
    X(0x11030E0, "Create uploader fail") \
    X(0x11030E1, "Create downloader fail") \
    X(0x11030B2, "folder cannot been created") \
    X(0x11030B3, "cannot get stat of folder") \
    X(0x11030B4, "folder is a file") \
    /* module 0x11: host-device messages */ \
    X(0x1113066, "hdc server do not exist") \
    X(0x1113067, "hdc sessionid vector is empty") \
    X(0x1113068, "hdc set hdc session reference failed") \
    X(0x1113069, "hdc recv message failed") \
    X(0x111306A, "hdc send message failed") \
    X(0x1113088, "hdc service type is not supported") \
    X(0x1113023, "hdc service or client socket closed") \
    X(0x1113085, "thread function bind cpu core failed") \
    X(0x1113087, "hdc server has been closed") \
    /* module 0x12: queues */ \
    X(0x1121075, "queue has been stopped") \
    X(0x1121076, "failed to pop data from queue") \
    X(0x1121077, "failed to push data from queue") \
    X(0x1123079, "queue create fail") \
    X(0x1123078, "queue not find") \
    X(0x112307A, "queue is full") \
    X(0x112307B, "queue is empty") \
    X(0x112307C, "enqueue to computer process failed") \
    X(0x112307D, "stop computer process queue failed") \
    X(0x112307E, "no channel in first msg") \
    X(0x11230C8, "md5 of recv msg is wrong") \
    X(0x11230F6, "checksum of recv msg is wrong") \
    X(0x11230C9, "md5 of recv msg is wrong") \
    X(0x11230CA, "sequence recv msg is wrong") \
    X(0x11230CB, "memory copy failed") \
    /* module 0x13: host-device client */ \
    X(0x1133081, "hdc client init error") \
    X(0x1133082, "hdc client create error") \
    X(0x1133083, "hdc client do not exist") \
    X(0x1133084, "hdc server destroy error") \
    X(0x1133086, "hdc client has been closed") \
    /* module 0x14: gak client */ \
    X(0x1143089, "gak client open failed") \
    X(0x114308A, "gak client close failed") \
    X(0x114308B, "gak client func not support") \
    /* module 0x15: digests */ \
    X(0x11530B6, "params to generate md5 is illegal") \
    X(0x11530B7, "md5_init failed") \
    X(0x11530B8, "md5_update failed") \
    X(0x11530B9, "md5_final failed") \
    /* module 0x16: configuration watch */ \
    X(0x11630BD, "Initialization of inotify failed") \
    X(0x11630BE, "Add watch of inotify failed") \
    X(0x11630BF, "Close inotifyFd failed") \
    X(0x11620C0, "read size of inotify is not correct") \
    X(0x11620C1, "unsupported config item") \
    X(0x11620C2, "can not set local config item") \
    X(0x11630C3, "read file fail") \
    X(0x11630C4, "config file is incorrectly formatted") \
    X(0x11630C5, "strcat failed") \
    X(0x11630C6, "create ConfigFile pointer failed") \
    /* module 0x17: host */ \
    X(0x11730ED, "qel host init failed") \
    X(0x11730EE, "channel name is empty") \
    X(0x11730EF, "allocate memory failed") \
    X(0x11730F0, "memory copy failed") \
    X(0x11720F1, "can not get data element") \
    X(0x11720F2, "push data but not init") \
    /* module 0x18: shared virtual memory */ \
    X(0x11830F7, "SVM driver init failed") \
    X(0x11830F8, "SVM driver free host pin memory failed") \
    X(0x11830F9, "SVM driver free device svm memory failed") \
    X(0x11830FA, "add svm buffer info to map failed")

namespace qel {

// Those that this library returns or logs.
constexpr uint32_t kStatusOk = 0x1011000;               ///< success
constexpr uint32_t kStatusWarning = 0x1012003;          ///< log only: receiving failed, or a handler raised something
constexpr uint32_t kStatusMemoryExhausted = 0x1013007;  ///< memory ran out, or a message is longer than the codec sends
constexpr uint32_t kStatusIntegerReversed = 0x1013008;  ///< an encoded length that no frame can have
constexpr uint32_t kStatusDriverError = 0x1033022;      ///< log only: nothing to tear down, or the driver refused to
constexpr uint32_t kStatusPpcInitFail = 0x1093030;      ///< the driver cannot be used
constexpr uint32_t kStatusPpcCreateFail = 0x1093031;    ///< no server, or a failed call of gak.h
constexpr uint32_t kStatusPpcDestroyFail = 0x1093032;   ///< log only: a session or the endpoint did not end
constexpr uint32_t kStatusPpcMsgBufferFail = 0x1093034;       ///< the driver refused a buffer
constexpr uint32_t kStatusPpcConnectFail = 0x1093035;         ///< log only: the client cannot connect
constexpr uint32_t kStatusPpcNoSession = 0x1093036;           ///< no session to send on
constexpr uint32_t kStatusPpcSendRecvFail = 0x1093037;        ///< sending or receiving failed
constexpr uint32_t kStatusPpcMsgFreeFail = 0x1093038;         ///< the driver refused to free a descriptor
constexpr uint32_t kStatusPpcMsgAllocFail = 0x1093039;        ///< the driver gave no descriptor
constexpr uint32_t kStatusPpcLengthMismatch = 0x109303A;      ///< the encoded length does not fit the payload
constexpr uint32_t kStatusPpcBufferNull = 0x109303B;          ///< a frame of length 0
constexpr uint32_t kStatusPpcClientInvalidParam = 0x109303C;  ///< a device or wait type that is out of range
constexpr uint32_t kStatusPpcServerInvalidParam = 0x109303D;  ///< a device or type out of range; a call in a handler
constexpr uint32_t kStatusPpcClientNotExpected = 0x109303E;   ///< a message that does not end the receive loop
constexpr uint32_t kStatusPpcSocketClosed = 0x109303F;        ///< the peer closed the connection
constexpr uint32_t kStatusPpcRecvFail = 0x1093040;            ///< the client has no session, or has been destroyed
constexpr uint32_t kStatusPpcCloseFail = 0x1093041;           ///< log only: a session that is closed, or unknown

/// Reads the level field of a status number.
///
/// @param status  The status number.
/// @return The level.
constexpr uint32_t StatusLevel(uint32_t status)
{
    return (status >> 12) & 0xFU;
}

}  // namespace qel

#endif
