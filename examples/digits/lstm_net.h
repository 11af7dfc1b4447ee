/* Written by train.py: sizes and shifts of lstm/ */
#ifndef LSTM_NET_H
#define LSTM_NET_H

#define LSTM_INPUTS     8
#define LSTM_UNITS      32
#define LSTM_FC_INPUTS  32
#define LSTM_FC_OUTPUTS 10
#define LSTM_SHIFT      2
#define LSTM_FC_SHIFT   1

#endif /* LSTM_NET_H */
