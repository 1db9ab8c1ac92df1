// The mark by which a deciphered piece is recognised, in tokens, sealed messages and initial packages alike.
#pragma once

inline constexpr char g_RefCode[4] = {'C', 'R', 'Y', '1'};
