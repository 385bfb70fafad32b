"""A corpus on a real Dask cluster (two worker processes) gives the commands' files, byte for byte."""
import os

import pytest

import kestrel
from conftest import RECORDINGS, run, same_bytes, wav

pytestmark = pytest.mark.filterwarnings("ignore::DeprecationWarning")  # tornado's, under distributed


def test_corpus_on_a_cluster_equals_the_commands(tmp_path, kestrelana, kestrelsyn):
    from distributed import Client, LocalCluster
    scp = tmp_path / "wav.scp"
    scp.write_text("# id path\n" + "".join(f"{r} {wav(r)}\n" for r in RECORDINGS))
    run(kestrelana, f"--list={scp}", f"--outdir={tmp_path / 'cli_feats'}")
    run(kestrelsyn, f"--list={scp}", f"--featdir={tmp_path / 'cli_feats'}", f"--outdir={tmp_path / 'cli_wavs'}",
        "--fpitch=1.25")
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0",
                      silence_logs=40) as cluster, Client(cluster) as client:
        assert len(client.scheduler_info()["workers"]) == 2
        with open(scp, "a") as f:
            f.write("broken /nonexistent.wav\n")
        status = kestrel.batch(str(scp), str(tmp_path / "feats"), client=client)
        assert status.pop("broken") == "could not open /nonexistent.wav."
        assert status == {r: None for r in RECORDINGS}
        status = kestrel.batch(RECORDINGS, str(tmp_path / "wavs"), task="synthesise",
                               featdir=str(tmp_path / "feats"), client=client, fpitch=1.25)
        assert status == {r: None for r in RECORDINGS}
    for r in RECORDINGS:
        for ext in ("lf0", "cc", "fv"):
            assert same_bytes(tmp_path / "cli_feats" / f"{r}.{ext}", tmp_path / "feats" / f"{r}.{ext}"), (r, ext)
        assert same_bytes(tmp_path / "cli_wavs" / f"{r}.wav", tmp_path / "wavs" / f"{r}.wav"), r
    assert sorted(os.listdir(tmp_path / "wavs")) == sorted(f"{r}.wav" for r in RECORDINGS)


def test_without_a_cluster_on_local_threads(tmp_path):
    paths = [wav(r) for r in RECORDINGS[:2]]
    assert kestrel.batch(paths, str(tmp_path), order=24) == {r: None for r in RECORDINGS[:2]}
    feats = kestrel.Features.load(str(tmp_path / RECORDINGS[0]))
    assert feats.order == 24 and feats.nframes == kestrel.countframes(len(kestrel.read_wav(paths[0])[0]))
    with pytest.raises(ValueError, match="utterance id 'a' given twice"):
        kestrel.batch(["x/a.wav", "y/a.wav"], str(tmp_path))
    with pytest.raises(ValueError, match="synthesis needs featdir"):
        kestrel.batch(RECORDINGS, str(tmp_path), task="synthesise")
