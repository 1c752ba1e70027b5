"""Four processes flood the bus; two other modules go on talking."""
from lumdtest.flood import ANSWERER, NOBODY, SINK, burst_to, flood, processes, talk

QUESTIONS = 200
LIMIT = 0.010  # seconds of a question and its answer, the slowest in a hundred left out
ATTEMPTS = 3  # a broker that lets itself be flooded fails each of them


def slowest_but_one_in_a_hundred(delays):
    return delays[len(delays) * 99 // 100]


def test_four_flooders_do_not_delay_a_question_and_its_answer(broker):
    floods = [(flood, broker.path, module, to)
              for module, to in ((50, SINK), (51, SINK), (52, NOBODY), (53, ANSWERER))]
    with talk(broker) as talking, processes(*floods):
        talking.delays(QUESTIONS // 10)  # until all of them are at it
        seen = []
        while len(seen) < ATTEMPTS and (not seen or seen[-1] >= LIMIT):
            seen.append(slowest_but_one_in_a_hundred(talking.delays(QUESTIONS)))
        assert seen[-1] < LIMIT, seen


def test_a_flooder_that_takes_nothing_back_disturbs_nobody(broker):
    enough = 64 * 1024 * 1024
    with broker.client(54) as silent, talk(broker) as talking:
        silent.socket.settimeout(1)
        sent = 0
        try:
            while sent < enough:
                sent += silent.socket.send(burst_to(NOBODY))
        except TimeoutError:
            pass
        assert sent < enough, "the broker reads on"
        assert len(talking.delays(QUESTIONS)) == QUESTIONS
