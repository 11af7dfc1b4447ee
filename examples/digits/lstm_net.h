/* Written by train.py: sizes and calibrated shifts of lstm/ */
#ifndef LSTM_NET_H
#define LSTM_NET_H

#define LSTM_INPUTS     8
#define LSTM_UNITS      32
#define LSTM_FC_INPUTS  32
#define LSTM_FC_OUTPUTS 10
#define LSTM_SHIFT      2 /* 0.67 bits of headroom on 1437 calibration inputs (gate inputs may saturate beyond 8) */
#define LSTM_FC_SHIFT   1 /* 1.10 bits of headroom on 1437 calibration inputs */

#endif /* LSTM_NET_H */
