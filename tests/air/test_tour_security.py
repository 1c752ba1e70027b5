"""Black list and key holders of 802.11r: what the kernel, the clients, the frames and hostapd
said of them during the tour."""
import pytest
from labair import frames
from labair.securitysteps import FIRST_KEYS, LATER_KEYS
from labair.steps import BAND_24

TRANSITIONS = pytest.mark.parametrize("number, keys",
                                     tuple(enumerate((FIRST_KEYS, LATER_KEYS))))


def test_who_is_on_the_black_list_is_put_off_and_refused(seen):
    banned = seen("black_list")
    client, other = seen.tour.clients_of(BAND_24)[-1], seen.tour.clients_of(BAND_24)[0]
    assert banned.put_off.subtype == frames.DEAUTHENTICATION
    assert banned.put_off.receiver == client.address
    assert banned.refusal.refuses
    assert banned.refusal.receiver == client.address
    assert banned.refusal.time > banned.put_off.time
    assert client.address not in banned.stations
    assert other.address in banned.stations


def test_nobody_else_notices_the_black_list(seen):
    assert not seen("black_list").lost


def test_who_is_taken_off_the_black_list_joins_again(seen):
    assert seen("black_list").back["wpa_state"] == "COMPLETED"


@TRANSITIONS
def test_no_client_loses_its_connection_by_other_key_holders(seen, number, keys):
    roamed = seen("key_holders")[number]
    assert not roamed.lost
    assert all(key in roamed.hostapd for key in keys)


@TRANSITIONS
def test_a_key_comes_from_the_other_access_point_during_the_transition(seen, number, keys):
    roamed = seen("key_holders")[number]
    assert "ft_psk_generate_local=0\n" in roamed.hostapd
    asked = [frame for frame in roamed.transition if frame.is_ft_authentication]
    begun = min(frame.time for frame in asked if frame.transmitter == roamed.client)
    done = max(frame.time for frame in asked if frame.receiver == roamed.client)
    pulled = [key for key in roamed.keys if key.kind == frames.KEY_PULL]
    given = [key for key in roamed.keys if key.kind == frames.KEY_RESPONSE]
    assert pulled and given
    assert begun < min(key.time for key in given) < done
    assert {(key.transmitter, key.receiver) for key in pulled} == \
        {(key.receiver, key.transmitter) for key in given}


@TRANSITIONS
def test_a_transition_by_such_a_key_is_a_fast_one(seen, number, keys):
    roamed = seen("key_holders")[number]
    asked = [frame for frame in roamed.transition if frame.subtype == frames.AUTHENTICATION]
    assert asked and all(frame.is_ft_authentication for frame in asked)
    assert not any(frame.refuses for frame in asked)
    assert any(frame.subtype == frames.REASSOCIATION_REQUEST for frame in roamed.transition)
