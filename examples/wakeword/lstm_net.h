/* Written by train.py: the keyword spotter's LSTM (lstm/) */
#ifndef LSTM_NET_H
#define LSTM_NET_H

#define LSTM_INPUTS     20
#define LSTM_UNITS      48
#define LSTM_FC_INPUTS  48
#define LSTM_FC_OUTPUTS 12
#define LSTM_SHIFT      9 /* 0.00 bits of headroom on 870 calibration inputs (gate inputs may saturate beyond 8) */
#define LSTM_FC_SHIFT   2 /* 1.36 bits of headroom on 870 calibration inputs */

#endif /* LSTM_NET_H */
