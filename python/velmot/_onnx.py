"""A fitted forest as an ONNX graph (``forest.to_onnx``, ``velmot export``).

The graph takes one input, ``X``: double, shape (n_samples, n_features).
Thresholds are stored as doubles, so a model learnt on any element type
compares exactly as Velmot does; pass float32 or integer data cast to
double (exact). Its steps:

1. NaN is replaced by each feature's training median, as Velmot's
   prediction does (``IsNaN`` and ``Where``), so no NaN reaches the trees.
2. The trees, as one ``TreeEnsembleClassifier`` or ``TreeEnsembleRegressor``
   (domain ai.onnx.ml, opset 3). Every split is ``BRANCH_LT``: a value below
   the threshold takes the true branch, the left child; an equal value takes
   the right child, as in Velmot.
3. Classifier: each leaf casts one vote (weight 1) for its class, so the
   ensemble's float scores are exact vote counts; ``probabilities`` divides
   them by the number of trees (float32, the vote fractions rounded once)
   and ``label`` is ``classes_`` at the first largest count (``ArgMax``,
   which breaks ties towards the first class, as Velmot does).
   Regressor: ``prediction`` (float32, shape (n_samples, 1)) is the mean of
   the trees' leaf values.
"""

import numpy as np

OPSET, ML_OPSET, IR_VERSION = 13, 3, 8


def forest_graph(forest, class_labels=None):
    """The ONNX ModelProto of a fitted forest, checked by ``onnx.checker``;
    a classifier's ``label`` output gives ``class_labels`` (default
    ``classes_``)."""
    try:
        import onnx
        from onnx import TensorProto, helper, numpy_helper
    except ImportError:
        raise ImportError("exporting to ONNX needs the onnx package: pip install 'velmot[onnx]'") from None

    nodes, n_features = forest.nodes_, forest.n_features_in_
    regression = getattr(forest, "_TASK", "classification") == "regression"
    ensemble = _ensemble_attributes(nodes, regression)
    initializers, steps = [], []
    features = "X"
    fill = getattr(forest, "_missing_value_fill_", None)
    if fill is not None:
        initializers.append(numpy_helper.from_array(np.asarray(fill, dtype=np.float64).reshape(1, -1), "medians"))
        steps += [
            helper.make_node("IsNaN", ["X"], ["missing"]),
            helper.make_node("Where", ["missing", "medians", "X"], ["X_filled"]),
        ]
        features = "X_filled"
    if regression:
        steps.append(
            helper.make_node(
                "TreeEnsembleRegressor",
                [features],
                ["prediction"],
                domain="ai.onnx.ml",
                n_targets=1,
                aggregate_function="AVERAGE",
                **ensemble,
            )
        )
        outputs = [helper.make_tensor_value_info("prediction", TensorProto.FLOAT, [None, 1])]
    else:
        n_classes = len(forest.classes_)
        initializers += [
            numpy_helper.from_array(np.array(float(nodes.n_trees), dtype=np.float32), "n_trees"),
            _classes_tensor(np.asarray(forest.classes_ if class_labels is None else class_labels)),
        ]
        steps += [
            helper.make_node(
                "TreeEnsembleClassifier",
                [features],
                ["vote_label", "votes"],
                domain="ai.onnx.ml",
                classlabels_int64s=list(range(n_classes)),
                post_transform="NONE",
                **ensemble,
            ),
            helper.make_node("Div", ["votes", "n_trees"], ["probabilities"]),
            helper.make_node("ArgMax", ["votes"], ["class_index"], axis=1, keepdims=0),
            helper.make_node("Gather", ["classes", "class_index"], ["label"], axis=0),
        ]
        label_type = initializers[-1].data_type
        outputs = [
            helper.make_tensor_value_info("label", label_type, [None]),
            helper.make_tensor_value_info("probabilities", TensorProto.FLOAT, [None, n_classes]),
        ]
    graph = helper.make_graph(
        steps,
        "velmot_forest",
        [helper.make_tensor_value_info("X", TensorProto.DOUBLE, [None, n_features])],
        outputs,
        initializers,
    )
    model = helper.make_model(
        graph,
        opset_imports=[helper.make_opsetid("", OPSET), helper.make_opsetid("ai.onnx.ml", ML_OPSET)],
        producer_name="velmot",
    )
    model.ir_version = IR_VERSION
    onnx.checker.check_model(model)
    return model


def _ensemble_attributes(nodes, regression):
    """The node and leaf attributes shared by both ensemble operators."""
    from onnx import numpy_helper

    tree_of = np.repeat(np.arange(nodes.n_trees), np.diff(nodes.offsets))
    node_id = np.arange(len(tree_of)) - nodes.offsets[tree_of]
    leaf = nodes.left < 0
    attributes = {
        "nodes_treeids": tree_of.tolist(),
        "nodes_nodeids": node_id.tolist(),
        "nodes_featureids": np.where(leaf, 0, nodes.feature).tolist(),
        "nodes_modes": np.where(leaf, "LEAF", "BRANCH_LT").tolist(),
        "nodes_values_as_tensor": numpy_helper.from_array(np.where(leaf, 0.0, nodes.threshold)),
        "nodes_truenodeids": np.where(leaf, 0, nodes.left).tolist(),
        "nodes_falsenodeids": np.where(leaf, 0, nodes.right).tolist(),
    }
    prefix = "target" if regression else "class"
    attributes[f"{prefix}_treeids"] = tree_of[leaf].tolist()
    attributes[f"{prefix}_nodeids"] = node_id[leaf].tolist()
    if regression:
        attributes["target_ids"] = [0] * int(leaf.sum())
        attributes["target_weights_as_tensor"] = numpy_helper.from_array(nodes.value[leaf].astype(np.float64))
    else:
        attributes["class_ids"] = nodes.value[leaf].tolist()
        attributes["class_weights"] = [1.0] * int(leaf.sum())
    return attributes


def _classes_tensor(classes):
    from onnx import TensorProto, helper, numpy_helper

    if classes.dtype.kind in "US":
        return helper.make_tensor("classes", TensorProto.STRING, [len(classes)], [str(c).encode() for c in classes])
    if classes.dtype.kind in "iu":
        return numpy_helper.from_array(classes.astype(np.int64), "classes")
    return numpy_helper.from_array(classes, "classes")


def write_onnx(forest, path, class_labels=None):
    """Write the forest's graph to ``path`` through a temporary file and a
    rename."""
    from ._files import atomic_write

    data = forest_graph(forest, class_labels).SerializeToString()

    def write(temp):
        with open(temp, "wb") as file:
            file.write(data)

    atomic_write(path, write)
