// Where channels lie. IEEE 802.11-2020, 17.3.8.4 and 21.3.14: a channel's number counts 5 MHz from the
// start of its band; channels of 40 and 80 MHz lie at fixed places of the 5 GHz band.

const STARTS = {"2.4GHz": 2407, "5GHz": 5000, "6GHz": 5950};  // MHz
const CHANNEL_14 = 2484;  // MHz
const STEP = 5;           // MHz of a channel number
const QUADS = {"5GHz": [36, 52, 100, 116, 132, 149, 165], "6GHz": []};  // first channels of 80 MHz

// `pieces`: [from, to] in MHz of what is drawn; between two of them no channel lies.
export const BANDS = {
  "2.4GHz": {pieces: [[2397, 2492]], ticks: [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14]},
  "5GHz": {pieces: [[5165, 5340], [5480, 5840]],
    ticks: [36, 44, 52, 60, 100, 108, 116, 124, 132, 140, 149, 157, 165]},
  "6GHz": {pieces: [[5935, 6435]], ticks: [1, 9, 17, 25, 33, 41, 49, 57, 65, 73, 81, 89]},
};

export function bandOf(channel) {
  return channel <= 14 ? "2.4GHz" : "5GHz";
}

export function centre(band, channel) {
  return band === "2.4GHz" && channel === 14 ? CHANNEL_14 : STARTS[band] + STEP * channel;
}

// Whether a channel is one of these neighbouring pieces of a band.
export function liesIn(band, pieces, channel) {
  const middle = centre(band, channel);
  return bandOf(channel) === band && middle >= pieces[0][0] && middle <= pieces.at(-1)[1];
}

// {from, to} in MHz of what a network uses, its primary channel and width given.
export function span(band, channel, width, side = "lower") {
  let middle = centre(band, channel);
  if (width === 40) middle += side === "upper" ? -10 : 10;
  if (width === 80) {
    const first = QUADS[band].filter((quad) => quad <= channel).at(-1) ?? channel;
    middle = centre(band, first) + 30;
  }
  return {from: middle - width / 2, to: middle + width / 2};
}
