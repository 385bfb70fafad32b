"""Analysis or synthesis of a corpus, on a Dask distributed cluster or on local threads."""
from __future__ import annotations

import os
from concurrent.futures import ThreadPoolExecutor
from typing import Dict, Iterable, List, Optional, Tuple, Union

from .features import Features, read_wav, write_wav


def _readlist(items: Union[str, os.PathLike, Iterable[str]], needpath: bool) -> List[Tuple[str, str]]:
    """(uttid, path) pairs from an 'uttid path' list file, or from a list of paths (id = file
    name without extension) or of ids (synthesis)."""
    if isinstance(items, (str, os.PathLike)):
        pairs = []
        with open(items) as f:
            for lineno, line in enumerate(f, 1):
                parts = line.strip().split(None, 1)
                if not parts or parts[0].startswith("#"):
                    continue
                if needpath and len(parts) < 2:
                    raise ValueError(f"{items}:{lineno}: expected 'uttid path', found only '{parts[0]}'.")
                pairs.append((parts[0], parts[1].strip() if len(parts) > 1 else ""))
    else:
        pairs = [(os.path.splitext(os.path.basename(str(p)))[0], str(p)) for p in items]
    seen = set()
    for uid, _ in pairs:
        if not uid or "/" in uid or uid in (".", ".."):
            raise ValueError(f"utterance id '{uid}' cannot be a file name.")
        if uid in seen:
            raise ValueError(f"utterance id '{uid}' given twice.")
        seen.add(uid)
    return pairs


def _analyseone(uid: str, path: str, outdir: str, options: dict) -> Optional[str]:
    from . import analyse
    try:
        x, fs = read_wav(path)
        analyse(x, fs, **options).save(os.path.join(outdir, uid))
        return None
    except (OSError, ValueError, TypeError) as e:
        return str(e)


def _synthesiseone(uid: str, featdir: str, outdir: str, options: dict) -> Optional[str]:
    from . import synthesise
    try:
        feats = Features.load(os.path.join(featdir, uid), shift=options.pop("shift", 80),
                              alpha=options.pop("alpha", 0.42), hts_scale=options.pop("hts_scale", True))
        write_wav(os.path.join(outdir, uid + ".wav"), synthesise(feats, dtype="int16", **options))
        return None
    except (OSError, ValueError, TypeError) as e:
        return str(e)


def batch(items: Union[str, os.PathLike, Iterable[str]], outdir: str, *, task: str = "analyse",
          featdir: Optional[str] = None, client=None, **options) -> Dict[str, Optional[str]]:
    """Runs analysis or synthesis over a corpus; returns {uttid: None, or the error message}.

    task="analyse": items are WAV paths (id = file name without extension) or an
    'uttid path' list file (kestrelana --list); writes outdir/uttid.lf0, .cc, .fv, the
    files kestrelana writes, byte for byte. options go to analyse (shift, order, ...).
    task="synthesise": items are utterance ids or a list file whose first column is the
    id (kestrelsyn --list); reads featdir/uttid.lf0, .cc, .fv and writes outdir/uttid.wav,
    the file kestrelsyn writes. options go to synthesise (fpitch, fdur, ...).
    client: a dask.distributed Client; every utterance is one task on the cluster (the
    workers need the kestrel package importable and the files reachable). Without a
    client the utterances run on local threads, one per core.
    """
    if task not in ("analyse", "synthesise"):
        raise ValueError(f"task must be 'analyse' or 'synthesise', not {task!r}.")
    if task == "synthesise" and featdir is None:
        raise ValueError("synthesis needs featdir, the directory of the feature files.")
    pairs = _readlist(items, needpath=task == "analyse")
    os.makedirs(outdir, exist_ok=True)
    if task == "analyse":
        calls = [(_analyseone, uid, path, outdir, dict(options)) for uid, path in pairs]
    else:
        calls = [(_synthesiseone, uid, featdir, outdir, dict(options)) for uid, _ in pairs]
    if client is not None:
        futures = [client.submit(*c, pure=False) for c in calls]
        results = client.gather(futures)
    else:
        with ThreadPoolExecutor(max_workers=os.cpu_count() or 1) as pool:
            results = list(pool.map(lambda c: c[0](*c[1:]), calls))
    return {uid: r for (uid, _), r in zip(pairs, results)}
