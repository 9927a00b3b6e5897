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
/// stay as they are. This library returns and logs only the numbers that have a name; the other rows are the wider
/// system's, kept here so that a number from any component prints its text.
///
/// @param ROW    Called for each row without a name as ROW(X, number, text).
/// @param NAMED  Called for each row with a name as NAMED(X, name, number, text, meaning).
/// @param X      Passed on to both.
#define GAKPPC_STATUS_LIST(ROW, NAMED, X) \
    /* module 0x01: common */ \
    NAMED(X, kStatusOk, 0x1011000, "running ok", "success") \
    ROW(X, 0x1010001, "debug info") \
    ROW(X, 0x1013002, "internal error") \
    NAMED(X, kStatusWarning, 0x1012003, "warnging", "log only: receiving failed, or a handler raised something") \
    ROW(X, 0x1011004, "stopped") \
    ROW(X, 0x1013009, "File is not existed") \
    ROW(X, 0x101300A, "Default config file not exist") \
    ROW(X, 0x1013005, "file size is too large") \
    ROW(X, 0x1013006, "file path is invalid") \
    NAMED(X, kStatusMemoryExhausted, 0x1013007, "memory exhausted error", \
          "memory ran out, or a message is longer than the codec sends") \
    NAMED(X, kStatusIntegerReversed, 0x1013008, "interger reached reverse", \
          "an encoded length that no frame can have") \
    ROW(X, 0x101300B, "call member function before instance initialed") \
    ROW(X, 0x101300C, "initial failed") \
    ROW(X, 0x101300D, "instance not found") \
    ROW(X, 0x101300E, "create hdc session failed") \
    ROW(X, 0x101300F, "destory hdc session failed") \
    ROW(X, 0x1013010, "hdc session id do not exist") \
    ROW(X, 0x1013011, "qelMain pid is exist") \
    ROW(X, 0x101306C, "qel server accept hdc session failed") \
    ROW(X, 0x101306D, "channel do not exist") \
    ROW(X, 0x101306E, "message is null") \
    ROW(X, 0x101306F, "transcation status error") \
    ROW(X, 0x1013070, "transcation time out") \
    ROW(X, 0x1013071, "transcation requst id is not exist") \
    ROW(X, 0x1013072, "transcation generateid failed") \
    ROW(X, 0x1013073, "send channel info failed") \
    ROW(X, 0x1013074, "send channel info time out") \
    ROW(X, 0x101307F, "channel has no session") \
    ROW(X, 0x10130F3, "failed to init the channel of tuning-data") \
    ROW(X, 0x10130F4, "the index is error") \
    ROW(X, 0x10130F5, "the parameter is error") \
    /* module 0x02: daemon */ \
    ROW(X, 0x1023024, "Gakdaemon start fail") \
    ROW(X, 0x1023025, "Gakdaemon first get pid fail") \
    ROW(X, 0x1023026, "Gakdaemon kill processfail") \
    ROW(X, 0x1023027, "Gakdaemon second get pid fail") \
    ROW(X, 0x1023028, "Gakdaemon clean process final fail") \
    ROW(X, 0x1023029, "Gakdaemon init state fail") \
    ROW(X, 0x102302A, "Gakdaemon init hdcserver fail") \
    ROW(X, 0x102302B, "Gakdaemon get pid fail") \
    ROW(X, 0x102302C, "Gakdaemon clean resource fail") \
    ROW(X, 0x102302D, "Gakdaemon send msg fail") \
    ROW(X, 0x102302E, "vexo_sd process abnormal") \
    ROW(X, 0x102102F, "custom_vexo_sd process abnormal") \
    /* module 0x03: host-device server */ \
    ROW(X, 0x1033012, "hdc server init error") \
    ROW(X, 0x1033013, "hdc server create error") \
    ROW(X, 0x1033014, "hdc server destroy error") \
    ROW(X, 0x1033015, "hdc server accept error") \
    ROW(X, 0x1033016, "hdc server closed error") \
    ROW(X, 0x1033017, "hdc fail") \
    ROW(X, 0x10330CC, "hdc device id error") \
    ROW(X, 0x103301F, "hdc server close child session error") \
    ROW(X, 0x103301D, "serarfunc is null") \
    ROW(X, 0x103301E, "hdc send msg failed") \
    ROW(X, 0x1033020, "hdc server close server session error") \
    ROW(X, 0x1033021, "hdc server heart beat timeout") \
    NAMED(X, kStatusDriverError, 0x1033022, "ovra drv return error", \
          "log only: nothing to tear down, or the driver refused to") \
    ROW(X, 0x1031018, "hdc info") \
    ROW(X, 0x1033019, "hdc send message failed") \
    ROW(X, 0x103301B, "ovra seg size error") \
    ROW(X, 0x103301C, "Message input is null") \
    ROW(X, 0x103301A, "hdc message parse error") \
    /* module 0x04: shuffle */ \
    ROW(X, 0x1043042, "shuffle size is less or equal to 0") \
    ROW(X, 0x1043043, "online unique seed is equal to 0") \
    ROW(X, 0x1043044, "unable to create shuffle list") \
    ROW(X, 0x1043045, "illegal shuffle type") \
    ROW(X, 0x10430AE, "shuffler has not been inited") \
    ROW(X, 0x10430DE, "Illegal shuffle parameter") \
    ROW(X, 0x10430DF, "Create file shuffler fail") \
    /* module 0x05: data */ \
    ROW(X, 0x1053080, "the sample has no label") \
    ROW(X, 0x105309C, "the sample cannot be read") \
    ROW(X, 0x1053046, "illegal data type") \
    ROW(X, 0x1053095, "creating prefetcher failed") \
    ROW(X, 0x1053065, "fail to get QELDataItem") \
    ROW(X, 0x105309D, "data queue is closed") \
    ROW(X, 0x105309E, "fail to get shuffle result") \
    ROW(X, 0x10530AA, "label file has not been inited") \
    ROW(X, 0x10530AB, "directory of sample files has not been inited") \
    ROW(X, 0x10530AC, "prefetcher in deliver has not been inited") \
    ROW(X, 0x10530AD, "shuffler in prefetcher has not been created") \
    ROW(X, 0x10530AF, "shuffled item is out of file list") \
    ROW(X, 0x10530C7, "fail to generate md5 of data") \
    ROW(X, 0x10530CE, "qel filelist open failed") \
    ROW(X, 0x10530CF, "qel sample file is empty") \
    ROW(X, 0x10530D0, "qel open sample file fail") \
    ROW(X, 0x10530D1, "qel stat sample file fail") \
    ROW(X, 0x10530D2, "qel mmap sample file fail") \
    ROW(X, 0x10530D3, "qel unmap sample file fail") \
    ROW(X, 0x10530D4, "qel close sample file fail") \
    ROW(X, 0x10530D5, "qel parse sample file fail") \
    ROW(X, 0x10530D6, "qel crc32 of size mismatch") \
    ROW(X, 0x10530D7, "qel crc32 of data mismatch") \
    ROW(X, 0x10530D8, "qel prefetch data queue closed") \
    ROW(X, 0x10530DA, "map insert fail") \
    ROW(X, 0x10530D9, "prefetch init fail") \
    ROW(X, 0x10530DB, "invalid filelist line") \
    ROW(X, 0x10530E2, "BLB configuration fail") \
    ROW(X, 0x10530E3, "BLB callback argument fail") \
    ROW(X, 0x10530E4, "BLB download create thread fail") \
    ROW(X, 0x10530E5, "BLB download file fail") \
    ROW(X, 0x10530E6, "BLB download init fail") \
    ROW(X, 0x10530E7, "BLB download metadata fail") \
    ROW(X, 0x10530E8, "BLB list bucket fail") \
    ROW(X, 0x10530E9, "qel memguard memcpy fail") \
    ROW(X, 0x10530EA, "qel memguard memset fail") \
    /* module 0x06: configuration */ \
    ROW(X, 0x1063092, "can not open config file") \
    ROW(X, 0x1063093, "parse file failed") \
    ROW(X, 0x1063094, "no channel can be found in config file") \
    ROW(X, 0x1063096, "no parameter can be found") \
    ROW(X, 0x1063097, "the argment is not --configfile or stop") \
    ROW(X, 0x10630A0, "fail to create train data deliver") \
    ROW(X, 0x10630A1, "train data deliver in the list is nullptr") \
    ROW(X, 0x10630B0, "train data deliver init failed") \
    ROW(X, 0x10630B1, "train data deliver start failed") \
    ROW(X, 0x10630B5, "config file has syntax error") \
    ROW(X, 0x10630BA, "no deliver is existed") \
    ROW(X, 0x10630EB, "mkdir cmd failed") \
    ROW(X, 0x10630EC, "cp cmd failed") \
    ROW(X, 0x10630A2, "empty group_name") \
    ROW(X, 0x10630A3, "the same group_name already exists") \
    ROW(X, 0x10630A4, "the same device already exists") \
    ROW(X, 0x10630A5, "cannot find device") \
    ROW(X, 0x10620BC, "can not get environment variable") \
    /* module 0x07: jobs */ \
    ROW(X, 0x107208E, "inotify is interrupted") \
    ROW(X, 0x1073047, "unknow job state") \
    ROW(X, 0x107308C, "illegal heartbeat time") \
    ROW(X, 0x107308D, "read size of inotify is error") \
    ROW(X, 0x107308F, "Initialization of inotify failed") \
    ROW(X, 0x1073090, "Close inotifyFd failed") \
    ROW(X, 0x1073091, "Add watch of inotify failed") \
    ROW(X, 0x10730A6, "fail to write pid file") \
    ROW(X, 0x10730A7, "heart beat file has not been inited") \
    ROW(X, 0x10730A8, "job command file has not been inited") \
    ROW(X, 0x10730A9, "job state file has not been inited") \
    ROW(X, 0x10730BB, "fail to delete job command file") \
    /* module 0x08: memory pools and tasks */ \
    ROW(X, 0x1083048, "host buffer map to device failed") \
    ROW(X, 0x1083049, "memory pool alloc buffer failed") \
    ROW(X, 0x108304B, "Input datasize is wrong") \
    ROW(X, 0x108304A, "memory pool free buffer failed") \
    ROW(X, 0x108304E, "invalid parameter") \
    ROW(X, 0x108304F, "no usable memory in memory pool") \
    ROW(X, 0x1083050, "recv msg is null") \
    ROW(X, 0x108304D, "send msg failed") \
    ROW(X, 0x1083051, "mempool has stopped") \
    ROW(X, 0x1083052, "buffer not aligned") \
    ROW(X, 0x108304C, "memory pool has inited") \
    ROW(X, 0x1083053, "mempool not exist") \
    ROW(X, 0x1083054, "mempool not exist") \
    ROW(X, 0x1083055, "Recover recv data failed") \
    ROW(X, 0x1083056, "Memory status error") \
    ROW(X, 0x1083057, "update memory pool status failed") \
    ROW(X, 0x1083058, "resize memory pool status failed") \
    ROW(X, 0x108305A, "thread size is too large") \
    ROW(X, 0x108205B, "rename thread failed") \
    ROW(X, 0x108205C, "priority is invalid") \
    ROW(X, 0x108205D, "join task failed") \
    ROW(X, 0x108205E, "func is null") \
    ROW(X, 0x108205F, "sear/dear init failed") \
    ROW(X, 0x1082060, "func has already existed") \
    ROW(X, 0x1083059, "mempool destroy failed") \
    ROW(X, 0x10830CD, "data type factory make shared failed") \
    /* module 0x09: PPC */ \
    NAMED(X, kStatusPpcInitFail, 0x1093030, "Init PPC driver fail", "the driver cannot be used") \
    NAMED(X, kStatusPpcCreateFail, 0x1093031, "Create PPC server or PPC client fail", \
          "no server, or a failed call of gak.h") \
    NAMED(X, kStatusPpcDestroyFail, 0x1093032, "Destory PPC server or PPC client fail", \
          "log only: a session or the endpoint did not end") \
    ROW(X, 0x1093033, "PPC server is closed") \
    NAMED(X, kStatusPpcMsgBufferFail, 0x1093034, "PPC get or set msg buffer fail", "the driver refused a buffer") \
    NAMED(X, kStatusPpcConnectFail, 0x1093035, "PPC connect is failed", "log only: the client cannot connect") \
    NAMED(X, kStatusPpcNoSession, 0x1093036, "PPC session is not existed", "no session to send on") \
    NAMED(X, kStatusPpcSendRecvFail, 0x1093037, "PPC send or receive msg fail", "sending or receiving failed") \
    NAMED(X, kStatusPpcMsgFreeFail, 0x1093038, "PPC msg free fail", "the driver refused to free a descriptor") \
    NAMED(X, kStatusPpcMsgAllocFail, 0x1093039, "PPC alloc memory for msg fail", "the driver gave no descriptor") \
    NAMED(X, kStatusPpcLengthMismatch, 0x109303A, "PPC message length not match", \
          "the encoded length does not fit the payload") \
    NAMED(X, kStatusPpcBufferNull, 0x109303B, "PPC message buffer is null", "a frame of length 0") \
    NAMED(X, kStatusPpcClientInvalidParam, 0x109303C, "PPC message client invalid param fail", \
          "a device or wait type that is out of range") \
    NAMED(X, kStatusPpcServerInvalidParam, 0x109303D, "PPC message server invalid param fail", \
          "a device or type out of range; a call in a handler") \
    NAMED(X, kStatusPpcClientNotExpected, 0x109303E, "PPC message client receive not expected msg continue", \
          "a message that does not end the receive loop") \
    NAMED(X, kStatusPpcSocketClosed, 0x109303F, "PPC message server receive server or client socket closed msg", \
          "the peer closed the connection") \
    NAMED(X, kStatusPpcRecvFail, 0x1093040, "PPC receive msg failed", \
          "the client has no session, or has been destroyed") \
    NAMED(X, kStatusPpcCloseFail, 0x1093041, "PPC close session failed", \
          "log only: a session that is closed, or unknown") \
    /* module 0x10: files */ \
    ROW(X, 0x1103061, "can not get file state") \
    ROW(X, 0x1103062, "can not open file") \
    ROW(X, 0x110306B, "file content is empty") \
    ROW(X, 0x1103063, "file is destroyed") \
    ROW(X, 0x1103064, "fail to get memory for file") \
    ROW(X, 0x1103098, "file type is not supported") \
    ROW(X, 0x1103099, "pointer to dir is null") \
    ROW(X, 0x110309A, "can not get the tree of dir") \
    ROW(X, 0x110309B, "dir cannot be opened") \
    ROW(X, 0x110309F, "DFree memory of file failed") \
    ROW(X, 0x11030DC, "string to value fail") \
    ROW(X, 0x11030DD, "value positive integer fail") \
    ROW(X, 0x11030E0, "Create uploader fail") \
    ROW(X, 0x11030E1, "Create downloader fail") \
    ROW(X, 0x11030B2, "folder cannot been created") \
    ROW(X, 0x11030B3, "cannot get stat of folder") \
    ROW(X, 0x11030B4, "folder is a file") \
    /* module 0x11: host-device messages */ \
    ROW(X, 0x1113066, "hdc server do not exist") \
    ROW(X, 0x1113067, "hdc sessionid vector is empty") \
    ROW(X, 0x1113068, "hdc set hdc session reference failed") \
    ROW(X, 0x1113069, "hdc recv message failed") \
    ROW(X, 0x111306A, "hdc send message failed") \
    ROW(X, 0x1113088, "hdc service type is not supported") \
    ROW(X, 0x1113023, "hdc service or client socket closed") \
    ROW(X, 0x1113085, "thread function bind cpu core failed") \
    ROW(X, 0x1113087, "hdc server has been closed") \
    /* module 0x12: queues */ \
    ROW(X, 0x1121075, "queue has been stopped") \
    ROW(X, 0x1121076, "failed to pop data from queue") \
    ROW(X, 0x1121077, "failed to push data from queue") \
    ROW(X, 0x1123079, "queue create fail") \
    ROW(X, 0x1123078, "queue not find") \
    ROW(X, 0x112307A, "queue is full") \
    ROW(X, 0x112307B, "queue is empty") \
    ROW(X, 0x112307C, "enqueue to computer process failed") \
    ROW(X, 0x112307D, "stop computer process queue failed") \
    ROW(X, 0x112307E, "no channel in first msg") \
    ROW(X, 0x11230C8, "md5 of recv msg is wrong") \
    ROW(X, 0x11230F6, "checksum of recv msg is wrong") \
    ROW(X, 0x11230C9, "md5 of recv msg is wrong") \
    ROW(X, 0x11230CA, "sequence recv msg is wrong") \
    ROW(X, 0x11230CB, "memory copy failed") \
    /* module 0x13: host-device client */ \
    ROW(X, 0x1133081, "hdc client init error") \
    ROW(X, 0x1133082, "hdc client create error") \
    ROW(X, 0x1133083, "hdc client do not exist") \
    ROW(X, 0x1133084, "hdc server destroy error") \
    ROW(X, 0x1133086, "hdc client has been closed") \
    /* module 0x14: gak client */ \
    ROW(X, 0x1143089, "gak client open failed") \
    ROW(X, 0x114308A, "gak client close failed") \
    ROW(X, 0x114308B, "gak client func not support") \
    /* module 0x15: digests */ \
    ROW(X, 0x11530B6, "params to generate md5 is illegal") \
    ROW(X, 0x11530B7, "md5_init failed") \
    ROW(X, 0x11530B8, "md5_update failed") \
    ROW(X, 0x11530B9, "md5_final failed") \
    /* module 0x16: configuration watch */ \
    ROW(X, 0x11630BD, "Initialization of inotify failed") \
    ROW(X, 0x11630BE, "Add watch of inotify failed") \
    ROW(X, 0x11630BF, "Close inotifyFd failed") \
    ROW(X, 0x11620C0, "read size of inotify is not correct") \
    ROW(X, 0x11620C1, "unsupported config item") \
    ROW(X, 0x11620C2, "can not set local config item") \
    ROW(X, 0x11630C3, "read file fail") \
    ROW(X, 0x11630C4, "config file is incorrectly formatted") \
    ROW(X, 0x11630C5, "strcat failed") \
    ROW(X, 0x11630C6, "create ConfigFile pointer failed") \
    /* module 0x17: host */ \
    ROW(X, 0x11730ED, "qel host init failed") \
    ROW(X, 0x11730EE, "channel name is empty") \
    ROW(X, 0x11730EF, "allocate memory failed") \
    ROW(X, 0x11730F0, "memory copy failed") \
    ROW(X, 0x11720F1, "can not get data element") \
    ROW(X, 0x11720F2, "push data but not init") \
    /* module 0x18: shared virtual memory */ \
    ROW(X, 0x11830F7, "SVM driver init failed") \
    ROW(X, 0x11830F8, "SVM driver free host pin memory failed") \
    ROW(X, 0x11830F9, "SVM driver free device svm memory failed") \
    ROW(X, 0x11830FA, "add svm buffer info to map failed")

/// Calls a macro for each row of the list.
///
/// @param X  Called as X(number, text).
#define GAKPPC_STATUS_TABLE(X) GAKPPC_STATUS_LIST(GAKPPC_STATUS_TABLE_ROW, GAKPPC_STATUS_TABLE_NAMED_ROW, X)
/// A row of GAKPPC_STATUS_TABLE.
#define GAKPPC_STATUS_TABLE_ROW(X, number, text) X(number, text)
/// A row of GAKPPC_STATUS_TABLE.
#define GAKPPC_STATUS_TABLE_NAMED_ROW(X, name, number, text, meaning) X(number, text)
/// A row that has no constant.
#define GAKPPC_STATUS_NO_CONSTANT(X, number, text)
/// The constant of a row.
#define GAKPPC_STATUS_CONSTANT(X, name, number, text, meaning) \
    /** meaning */ \
    constexpr uint32_t name = number;

namespace qel {

GAKPPC_STATUS_LIST(GAKPPC_STATUS_NO_CONSTANT, GAKPPC_STATUS_CONSTANT, )

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
