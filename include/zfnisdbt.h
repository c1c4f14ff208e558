/* ZFNISDBT: software receiver for the one-segment service of ISDB-T.
 *
 * One receiver per process, no handles. Typical order of calls:
 *   ZFISDBT_SetTSCallBack(callback);   transport stream packets arrive here
 *   ZFISDBT_OpenDevice();              1 open, 0 failed, 2 the device did not initialise
 *   ZFISDBT_SetFrequency(kHz);         tunes and restarts acquisition
 *   ... status functions at will, further ZFISDBT_SetFrequency calls ...
 *   ZFISDBT_CloseDevice();
 * ZFISDBT_DebugCMD(5, 1) before open selects the simulator as sample source.
 *
 * Results are 1 for done and 0 for failure unless said otherwise. The callback runs on a thread of
 * the library and receives 128 packets of 188 bytes (24064 bytes) per call. Calls from two
 * threads at once are not supported.
 */
#ifndef ZFNISDBT_H
#define ZFNISDBT_H

#include <stdint.h>

#if defined(__GNUC__)
#define ZFISDBT_EXPORT __attribute__((visibility("default")))
#else
#define ZFISDBT_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Receiver of the transport stream: the data and its byte count (24064). */
typedef void (*ZFISDBT_TsCallback)(const uint8_t* data, int32_t length);
/* Stored and never called: no AC data is delivered. */
typedef void (*ZFISDBT_AcCallback)(void);

/* Number of words in the status block. */
#define ZFISDBT_PARA_WORDS 12

ZFISDBT_EXPORT int32_t ZFISDBT_OpenDevice(void);
ZFISDBT_EXPORT int32_t ZFISDBT_CloseDevice(void);
ZFISDBT_EXPORT int32_t ZFISDBT_SetFrequency(int32_t frequencyKHz);
/* 1 answered (*locked 1 or 0), 0 not sure (*locked 0). */
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalLock(int32_t* locked);
/* 1 answered (*present 1 or 0), 0 not sure (*present left as it was). */
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalPresent(int32_t* present);
/* 1, *quality one of 0, 20, 40, 60, 80, 100. */
ZFISDBT_EXPORT int32_t ZFISDBT_GetSignalQuality(int32_t* quality);
ZFISDBT_EXPORT int32_t ZFISDBT_SetTSCallBack(ZFISDBT_TsCallback callback);
ZFISDBT_EXPORT int32_t ZFISDBT_SetACCallBack(ZFISDBT_AcCallback callback);
ZFISDBT_EXPORT int32_t ZFISDBT_StartAC(void);
ZFISDBT_EXPORT int32_t ZFISDBT_StopAC(void);
ZFISDBT_EXPORT int32_t ZFISDBT_DebugCMD(int32_t command, int32_t value);
/* While open: *para = the live status block of ZFISDBT_PARA_WORDS words, result 1. */
ZFISDBT_EXPORT int32_t ZFISDBT_DebugGetParaPtr(int32_t** para);
/* While open: copies the ZFISDBT_PARA_WORDS status words, result 1. Words 0, 1, 7, 8, 9, 11 hold
 * floats (SNR dB, frequency offset in carrier spacings, byte error rate, packet error rate, packet
 * failure rate, failures in the last second); word 3 is mode * 4 + guard, word 5 the block state,
 * word 10 the channel state. Word 2 is 0, except with the refinements on (environment
 * ZFNISDBT_REFINED=1 at open): from the start of tracking it is then 0x01000000 | interleave << 16 |
 * code rate << 8 | modulation (modulation 0..3 DQPSK, QPSK, 16QAM, 64QAM; code rate 0..4 1/2, 2/3,
 * 3/4, 5/6, 7/8; interleave 0..3), cleared by a retune. */
ZFISDBT_EXPORT int32_t ZFISDBT_DebugGetParaValue(int32_t* words);

#ifdef __cplusplus
}
#endif

#endif /* ZFNISDBT_H */
