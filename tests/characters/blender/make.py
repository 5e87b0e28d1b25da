# Builds a textured head with ARKit-named shape keys and writes it with
# Blender's own glTF exporter. Run headless:
#   blender -b --factory-startup --python make.py -- OUTPUT.glb
# The head faces -Y in Blender (glTF's +Z after the exporter's Y-up turn).
# Its picture is two flat colours, orange above the mouth line and teal
# below, so a rendered frame shows whether the texture arrived.
import sys

import bpy
import numpy as np

out = sys.argv[sys.argv.index("--") + 1] if "--" in sys.argv else "head.glb"

bpy.ops.wm.read_factory_settings(use_empty=True)

# An egg-shaped head, 0.22 m tall, centred 1.6 m up (a performer's height):
# the reader must frame it by its "Head" node, whatever its size and place.
bpy.ops.mesh.primitive_uv_sphere_add(segments=64, ring_count=48, radius=0.1, location=(0.0, 0.0, 1.6))
head = bpy.context.active_object
head.name = "Head"
head.scale = (0.8, 0.9, 1.1)
bpy.ops.object.shade_smooth()

# The picture: 64 x 64, rows bottom first in Blender's pixel buffer.
size = 64
img = bpy.data.images.new("skin", width=size, height=size, alpha=False)
pixels = np.zeros((size, size, 4), dtype=np.float32)
pixels[:, :] = (0.0, 0.55, 0.55, 1.0)           # teal: the lower half of the texture
pixels[size // 2:, :] = (0.95, 0.45, 0.05, 1.0)  # orange: the upper half
img.pixels.foreach_set(pixels.ravel())
img.pack()

mat = bpy.data.materials.new("Skin")
mat.use_nodes = True
bsdf = mat.node_tree.nodes["Principled BSDF"]
bsdf.inputs["Roughness"].default_value = 0.6
tex = mat.node_tree.nodes.new("ShaderNodeTexImage")
tex.image = img
mat.node_tree.links.new(tex.outputs["Color"], bsdf.inputs["Base Color"])
head.data.materials.append(mat)

# Sphere UVs run v = 0 at the bottom pole to 1 at the top; the mouth line
# (local z = -0.03) sits a little below the middle: lower part teal.
mesh = head.data
uv = mesh.uv_layers.active.data
for loop in mesh.loops:
    z = mesh.vertices[loop.vertex_index].co.z  # -0.1 .. 0.1
    uv[loop.index].uv = (0.5, 0.25 if z < -0.03 else 0.75)

# Shape keys named as ARKit blendshapes, in three spellings the reader maps.
head.shape_key_add(name="Basis")
def shape(name, move):
    key = head.shape_key_add(name=name, from_mix=False)
    for i, v in enumerate(mesh.vertices):
        key.data[i].co = v.co + move(v.co)

from mathutils import Vector
# The jaw: the front lower third drops and comes forward.
shape("jawOpen", lambda c: Vector((0, -0.02, -0.06)) if c.z < -0.03 and c.y < 0.0 else Vector((0, 0, 0)))
# Upper front left (x >= 0 is the character's left) pushed in.
shape("EyeBlink_L", lambda c: Vector((0, 0.01, -0.01)) if c.z > 0.02 and c.x > 0.02 and c.y < 0 else Vector((0, 0, 0)))
shape("mouth_smile_right", lambda c: Vector((0, 0, 0.01)) if -0.05 < c.z < 0.0 and c.x < -0.02 and c.y < 0 else Vector((0, 0, 0)))
shape("Wobble", lambda c: Vector((0.005, 0, 0)))  # not an ARKit name: listed, not matched

bpy.ops.export_scene.gltf(filepath=out, export_format="GLB", export_morph=True, export_morph_normal=True,
                          export_apply=False, export_yup=True)
print("make.py: wrote", out)
